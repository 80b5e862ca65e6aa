#pragma once
// The local date and time for file headers, safe to call from several threads at once (the
// appendable writer is used so): localtime_r, never std::localtime's shared buffer.
#include <ctime>

inline bool LocalNow(std::tm& out)
{
    const std::time_t now = std::time(nullptr);
    return localtime_r(&now, &out) != nullptr;
}
