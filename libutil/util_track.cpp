// util_track.cpp - the progress file of a long-running utility.
#include "koutil/util_track.h"

#include "internal/guards.h"

#include <algorithm>

namespace
{

constexpr int most_decimals = 100;

// The figure with its last digits behind a point. No int has more than ten digits, so that with ten
// decimals and more nothing stands before the point.
void print_progress(FILE *fp, int progress, int decimals)
{
    if (decimals < 1) {
        fprintf(fp, "Progress: %d\n", progress);
        return;
    }
    int64_t power = 1;
    for (int i = 0; i < std::min(decimals, 10); i++) {
        power *= 10;
    }
    fprintf(fp, "Progress: %d.%0*d\n", static_cast<int>(progress / power),
            std::min(decimals, most_decimals), static_cast<int>(progress % power));
}

void UtilTrackReport(const util_track_ctx_t &ctx)
{
    if (fseek(ctx.fp, 0, SEEK_SET) != 0 || ftruncate(fileno(ctx.fp), 0) != 0) {
        return;
    }
    fprintf(ctx.fp, "Pid: %d\n", static_cast<int>(ctx.pid));
    if (ctx.phase != nullptr) {
        fprintf(ctx.fp, "Phase: %s\n", ctx.phase);
    }
    if (ctx.progress >= 0) {
        print_progress(ctx.fp, ctx.progress, ctx.progress_decimals);
    }
    if (ctx.status != nullptr) {
        fprintf(ctx.fp, "Status: %s\n", ctx.status);
    }
    fflush(ctx.fp);
}

// The last report.
void finish(util_track_ctx_t *ctx, const char *status)
{
    ctx->status = status;
    UtilTrackReport(*ctx);
    fclose(ctx->fp);
    free(ctx);
}

} // namespace

util_track_ctx_t *UtilTrackInit(const char *filename)
{
    auto ctx = koutil::callocate<util_track_ctx_t>();
    if (!ctx) {
        return nullptr;
    }
    ctx->fp = fopen(filename, "w+e");
    if (ctx->fp == nullptr) {
        return nullptr;
    }
    ctx->pid = getpid();
    ctx->progress = -1;
    return ctx.release();
}

void UtilTrackPhase(util_track_ctx_t *ctx, const char *phase)
{
    if (ctx != nullptr) {
        ctx->phase = phase;
        UtilTrackReport(*ctx);
    }
}

void UtilTrackProgress(util_track_ctx_t *ctx, int amount)
{
    if (ctx != nullptr) {
        ctx->progress = amount;
        UtilTrackReport(*ctx);
    }
}

void UtilTrackProgressDecimals(util_track_ctx_t *ctx, int decimals)
{
    if (ctx != nullptr) {
        ctx->progress_decimals = decimals;
    }
}

void UtilTrackHeartBeatLimit(util_track_ctx_t *ctx, int limit)
{
    if (ctx != nullptr) {
        ctx->hb_limit = limit;
    }
}

void UtilTrackHeartBeatPulse(util_track_ctx_t *ctx)
{
    if (ctx == nullptr) {
        return;
    }
    if (ctx->hb_limit != 0) {
        const time_t now = time(nullptr);
        if (now >= ctx->hb_lastpulse && now < ctx->hb_lastpulse + ctx->hb_limit) {
            return;
        }
        ctx->hb_lastpulse = now;
    }
    UtilTrackReport(*ctx);
}

void UtilTrackSuccess(util_track_ctx_t *ctx)
{
    if (ctx != nullptr) {
        ctx->phase = "Complete";
        finish(ctx, "Success");
    }
}

void UtilTrackFailure(util_track_ctx_t *ctx, const char *msg)
{
    if (ctx != nullptr) {
        finish(ctx, msg);
    }
}
