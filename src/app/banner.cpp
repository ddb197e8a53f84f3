// The banner names the method's literature and the compiled-in parallelism;
// the licence notices are those of the program and of the FFTW library it
// links. Users' log parsers rely on their line breaks, which are kept as
// they are and written line by line; tests/app/banner_test.cpp pins them.
#include "app/banner.h"

#include <cmath>

namespace app {

void print_banner(FILE* stream)
{
    std::fputs("=============================================\n", stream);
    std::fputs("  InSAR displacement time-series inversion\n", stream);
    std::fputs("     sbas-ts, by the sbas-ts authors      \n", stream);
    std::fputs("  contact: see README.md for bug reports  \n", stream);
    std::fputs("Referecens:\n", stream);
    std::fputs("   (1) Berardino P., Fornaro G., Lanari R., Sansosti E. (2002). A new algorithm for "
               "surface deformation monitoring based on small baseline differential SAR interferograms. "
               "IEEE TGRS 40(11), 2375-2383.\n",
               stream);
    std::fputs("   (2) Usai S. (2003). A least squares database approach for SAR interferometric data. "
               "IEEE TGRS 41(4), 753-760.\n",
               stream);
    std::fputs("   (3) Schmidt D. A., Burgmann R. (2003). Time-dependent land uplift and subsidence in the "
               "Santa Clara valley, California, from a large interferometric synthetic aperture radar data "
               "set. JGR 108(B9), 2416.\n\n",
               stream);
    std::fputs("\nDependencies:\t\n", stream);
    std::fputs("   (1) Openmp is enabled. \n", stream);
    std::fputs("   (2) FFTW is enabled.\n", stream);
    std::fputs("\nUser manual: \n", stream);
    std::fputs("     README.md of the sbas-ts source distribution\n", stream);
    std::fputs("=============================================\n", stream);
}

std::string format_total_time(double seconds)
{
    double d = seconds;
    const int days = static_cast<int>(std::floor(d / 86400));
    d -= 86400.0 * days;
    const int hours = static_cast<int>(std::floor(d / 3600));
    d -= 3600.0 * hours;
    const int minutes = static_cast<int>(std::floor(d / 60));
    const double rest = d - 60.0 * minutes;
    char text[160];
    std::snprintf(text, sizeof text, "Total time: %d days %d hours %d minutes %.2f seconds\n", days, hours, minutes,
                  rest);
    return text;
}

}  // namespace app

void print_license()
{
    static const char* const kLines[] = {
        "\n",
        "\n",
        "Copyright (c) 2026, the sbas-ts authors. All rights reserved.\n",
        "\n",
        "Redistribution and use in source and binary forms, with or without modification, \n",
        "are permitted provided that the following conditions are met:\n",
        "\n",
        "1. Redistributions of source code must retain the above copyright notice, \n",
        "this list of conditions and the following disclaimer.\n",
        "\n",
        "2. Redistributions in binary form must reproduce the above copyright notice, \n",
        "this list of conditions and the following disclaimer in the documentation \n",
        "and/or other materials provided with the distribution.\n",
        "\n",
        "3. Neither the name of the copyright holder nor the names of its contributors \n",
        "may be used to endorse or promote products derived from this software \n",
        "without specific prior written permission.\n",
        "\n",
        "THIS SOFTWARE IS PROVIDED BY THE COPYRIGHT HOLDERS AND CONTRIBUTORS \"AS IS\" AND \n",
        "ANY EXPRESS OR IMPLIED WARRANTIES, INCLUDING, BUT NOT LIMITED TO, THE IMPLIED WARRANTIES \n",
        "OF MERCHANTABILITY AND FITNESS FOR A PARTICULAR PURPOSE ARE DISCLAIMED. IN NO EVENT SHALL \n",
        "THE COPYRIGHT HOLDER OR CONTRIBUTORS BE LIABLE FOR ANY DIRECT, INDIRECT, INCIDENTAL, \n",
        "SPECIAL, EXEMPLARY, OR CONSEQUENTIAL DAMAGES (INCLUDING, BUT NOT LIMITED TO, PROCUREMENT \n",
        "OF SUBSTITUTE GOODS OR SERVICES; LOSS OF USE, DATA, OR PROFITS; OR BUSINESS INTERRUPTION) \n",
        "HOWEVER CAUSED AND ON ANY THEORY OF LIABILITY, WHETHER IN CONTRACT, STRICT LIABILITY, \n",
        "OR TORT (INCLUDING NEGLIGENCE OR OTHERWISE) ARISING IN ANY WAY OUT OF THE USE \n",
        "OF THIS SOFTWARE, EVEN IF ADVISED OF THE POSSIBILITY OF SUCH DAMAGE.\n",
        "\n",
        "\n",
        "\n",
        "==================================================================================\n",
        "License of FFTW \n",
        "Copyright (c) 2003, 2007-14 Matteo Frigo\n",
        "Copyright (c) 2003, 2007-14 Massachusetts Institute of Technology\n",
        "\n",
        "FFTW is free software; you can redistribute it and/or modify it under the terms of \n",
        "the GNU General Public License as published by the Free Software Foundation; \n",
        "either version 2 of the License, or (at your option) any later version.\n",
        "\n",
        "FFTW is distributed in the hope that it will be useful, but WITHOUT ANY WARRANTY; \n",
        "without even the implied warranty of MERCHANTABILITY or FITNESS FOR A PARTICULAR PURPOSE. \n",
        "See the GNU General Public License for more details.\n",
        "\n",
        "You should have received a copy of the GNU General Public License along with this program; \n",
        "if not, write to the Free Software Foundation, Inc., \n",
        "51 Franklin Street, Fifth Floor, Boston, MA 02110-1301 USA\n",
        "\n",
        "We would greatly appreciate it if you would acknowledge FFTW in any publication \n",
        "that uses it, by citing: \n",
        "Matteo Frigo and Steven G. Johnson, \"The Design and Implementation of FFTW3,\" \n",
        "Proceedings of the IEEE 93 (2), 216-231 (2005). \n",
        "Web page: http://www.fftw.org/\n",
        "\n",
        "Non-free versions of FFTW are available under terms different from those of the \n",
        "General Public License (e.g. they do not require you to accompany any object code \n",
        "using FFTW with the corresponding source code). For these alternative terms you \n",
        "must purchase a license from MIT's Technology Licensing Office. \n",
        "Users interested in such a license should contact us (fftw@fftw.org) \n",
        "for more information.\n",
        "==================================================================================\n",
        "\n",
    };
    for (const char* line : kLines) std::fputs(line, stderr);
}
