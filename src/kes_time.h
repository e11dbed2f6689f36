#ifndef KES_TIME_H
#define KES_TIME_H

#include "kes_string.h"

namespace kes {

class kesTime {
public:
    class kesDateTime {
    public:
        kesDateTime() {}
        int year = 0;
        int day_of_year = 0; // 1..366
        int month = 0;       // 1..12
        int day = 0;         // 1..31
        int day_of_week = 0; // 1..7, Sunday is 1
        int hour = 0;
        int minute = 0;
        int second = 0;
    };

    // Milliseconds of the wall clock, wrapping at 2^32: good for unsigned differences only.
    static unsigned int GetTime();
    // Milliseconds of a clock that no setting of the date moves, wrapping at 2^32.
    static unsigned int GetSteadyTime();
    // Local time in the 24-character form of asctime, without the line end.
    static kesString GetDateTime();
    // Raw struct tm values but the year; yearDay, month and weekDay count from 0.
    static void GetDateTime(int* year, int* yearDay, int* month, int* day, int* weekDay, int* hour, int* minute,
                            int* second);
    static void GetDateTime(kesDateTime* date);
};

} // namespace kes

#endif
