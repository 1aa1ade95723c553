// core_series.h - decides when a daemon has dumped core too often.
#ifndef KOUTIL_INTERNAL_CORE_SERIES_H
#define KOUTIL_INTERNAL_CORE_SERIES_H

#include <ctime>

namespace koutil
{

// A run of core dumps, each within an hour of the one before.
struct CoreSeries {
    int num_cores = 0;
    time_t last_core_ts = 0;

    // Counts the core dump of time `now`; true at the fifth of a series: give up.
    constexpr bool count(time_t now)
    {
        constexpr time_t longest_gap = 3599;
        constexpr int most = 4;
        if (now < last_core_ts || now - last_core_ts > longest_gap) {
            num_cores = 1;
        } else if (++num_cores > most) {
            return true;
        }
        last_core_ts = now;
        return false;
    }
};

} // namespace koutil

#endif
