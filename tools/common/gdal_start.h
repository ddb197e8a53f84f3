// GDAL for the companions: its drivers registered once, and its messages
// kept off standard error (a failure is reported by the program itself,
// with GDAL's last message).
#pragma once

#include <cpl_error.h>
#include <gdal.h>

namespace tools {

inline void start_gdal()
{
    static bool started = false;
    if (started) return;
    GDALAllRegister();
    CPLPushErrorHandler(CPLQuietErrorHandler);
    started = true;
}

}  // namespace tools
