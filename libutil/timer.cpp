// timer.cpp - the stopwatch.
#include "koutil/timer.h"

namespace
{

timeval start;
timeval end;

timeval now()
{
    timeval reading{};
    gettimeofday(&reading, nullptr);
    return reading;
}

double seconds_between(const timeval &from, const timeval &to)
{
    return static_cast<double>(to.tv_sec - from.tv_sec) +
           static_cast<double>(to.tv_usec - from.tv_usec) / 1e6;
}

} // namespace

void start_timer(void)
{
    start = now();
}

void end_timer(void)
{
    end = now();
}

void get_timer(double *time)
{
    *time = seconds_between(start, end);
}

void get_elapsed_time(double *time)
{
    *time = seconds_between(start, now());
}

void get_start_timer(struct timeval *startp)
{
    *startp = now();
}

void get_end_timer(struct timeval *startp, double *time)
{
    *time = seconds_between(*startp, now());
}
