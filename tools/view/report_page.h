// The HTML, style and script of `sbas-view report`, with two slots that the
// report fills: @DATA@ (a script defining DATA) and @NETWORK@ (the network
// figure, PNG in base64).
#pragma once

#include <string>

namespace view {

std::string report_page();

}  // namespace view
