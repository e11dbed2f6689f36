#include "kes_time.h"

#include <ctime>
#include <sys/time.h>

namespace kes {

unsigned int kesTime::GetTime()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    unsigned long long ms =
        static_cast<unsigned long long>(now.tv_sec) * 1000ull + static_cast<unsigned long long>(now.tv_usec) / 1000ull;
    return static_cast<unsigned int>(ms);
}

unsigned int kesTime::GetSteadyTime()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    unsigned long long ms = static_cast<unsigned long long>(now.tv_sec) * 1000ull +
                            static_cast<unsigned long long>(now.tv_nsec) / 1000000ull;
    return static_cast<unsigned int>(ms);
}

kesString kesTime::GetDateTime()
{
    // The reentrant forms: every thread logs, and the shared static buffers would mix.
    time_t now = time(nullptr);
    struct tm local;
    char buffer[64];
    if (!localtime_r(&now, &local) || !asctime_r(&local, buffer))
        return kesString();
    kesString text(buffer);
    text.SetShrink("\n\t", true);
    text.SetShrink("\n\t", false);
    return text;
}

void kesTime::GetDateTime(int* year, int* yearDay, int* month, int* day, int* weekDay, int* hour, int* minute,
                          int* second)
{
    time_t now = time(nullptr);
    struct tm local;
    if (!localtime_r(&now, &local))
        return;
    if (year)
        *year = local.tm_year + 1900;
    if (yearDay)
        *yearDay = local.tm_yday;
    if (month)
        *month = local.tm_mon;
    if (day)
        *day = local.tm_mday;
    if (weekDay)
        *weekDay = local.tm_wday;
    if (hour)
        *hour = local.tm_hour;
    if (minute)
        *minute = local.tm_min;
    if (second)
        *second = local.tm_sec;
}

void kesTime::GetDateTime(kesDateTime* date)
{
    if (!date)
        return;
    GetDateTime(&date->year, &date->day_of_year, &date->month, &date->day, &date->day_of_week, &date->hour,
                &date->minute, &date->second);
    date->day_of_year += 1;
    date->month += 1;
    date->day_of_week += 1;
}

} // namespace kes
