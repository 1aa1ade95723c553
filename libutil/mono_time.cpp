// mono_time.cpp - the tick clock.
//
// The clock state belongs to the handler thread; only the tick count is read by others.
#include "koutil/mono_time.h"

#include "internal/literal.h"
#include "koutil/msleep.h"

#include <atomic>

namespace
{

constexpr uint64_t tick_usec = 100'000;
constexpr uint64_t leap_usec = 3'000'000; // a larger step in one round is a leap of the wall clock

static_assert(sizeof(monotime_t) == 8);

uint64_t mono_init_time;
uint64_t mono_last_systime;
uint64_t mono_time;
uint64_t delta; // added to the wall clock to give mono_time; wraps below zero

// Read without a lock by every stamp.
constinit std::atomic<uint32_t> mono_ticks{0};

uint32_t ticks()
{
    return mono_ticks.load(std::memory_order_relaxed);
}

// Lets the clock go on by one tick where the wall clock jumped.
void absorb_jump(uint64_t now)
{
    mono_time += tick_usec;
    delta = mono_time - now;
}

void report(const mono_handler_param_t &param, const char *format, uint64_t usec)
{
    if (param.error_log != nullptr) {
        param.error_log(koutil::literal(format), static_cast<double>(usec) / 1e6);
    }
}

void advance(const mono_handler_param_t &param, uint64_t now)
{
    if (now < mono_last_systime) {
        report(param, "clock jumped backward %.1fs", mono_last_systime - now);
        absorb_jump(now);
    } else if (now <= mono_last_systime + leap_usec) {
        mono_time = now + delta;
    } else {
        report(param, "clock jumped forward %.1fs", now - mono_last_systime - tick_usec);
        absorb_jump(now);
    }
    mono_last_systime = now;
    mono_ticks.store(static_cast<uint32_t>((mono_time - mono_init_time) / tick_usec),
                     std::memory_order_relaxed);
}

} // namespace

void mono_init(void)
{
    const uint64_t now = MicroTime();
    mono_ticks.store(0, std::memory_order_relaxed);
    mono_init_time = now;
    mono_last_systime = now;
    mono_time = now;
}

void mono_handler(void *arg)
{
    const auto *param = static_cast<const mono_handler_param_t *>(arg);
    for (;;) {
        (void)Msleep(tick_usec); // cannot fail, and an early end only makes the round short
        advance(*param, MicroTime());
    }
}

monotime_t GetMonoStamp(void)
{
    return {1, ticks()};
}

monotime_t InvalidMono(void)
{
    return {0, 0};
}

int MonoIsValid(monotime_t m)
{
    return m.valid != 0 ? 1 : 0;
}

int MonoCmp(monotime_t a, monotime_t b)
{
    const uint32_t ticks_a = a.stamp;
    const uint32_t ticks_b = b.stamp;
    if (ticks_a == ticks_b) {
        return 0;
    }
    return ticks_a < ticks_b ? -1 : 1;
}

uint64_t GetMonoElapsed(monotime_t m)
{
    if (m.valid == 0) {
        return (uint64_t{1} << 32) * tick_usec;
    }
    return uint64_t{ticks() - m.stamp} * tick_usec;
}
