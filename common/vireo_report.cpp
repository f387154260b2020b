// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_report.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <csignal>
#include <ctime>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

// Redraws of the terminal line are at most this far apart in time, except at an item's
// start and end: a write loop calls in every 2048 bytes.
const double kDrawInterval = 0.1;

struct report_state {
    FILE *file = nullptr;
    bool tty = false;             // the progress line is drawn on standard error
    bool stdout_tty = false;      // traces share the terminal: the line is cleared before each
    bool progress_events = false; // a check writes none: it only tells what would be done
    bool drawn = false;           // a line stands on standard error
    int columns = 80;

    // Percent: before the plan the verifying bytes are counted apart; the plan fixes
    // where percent stands (floor) and the bytes it runs over from there to 100.
    bool planned = false;
    uint64_t verified = 0; // bytes of the verifying items before the plan
    uint64_t total = 0;    // of the plan
    uint64_t done = 0;     // counted bytes of finished items
    double floor = 0;
    double percent = 0;
    int reported = -1; // the last whole percent written to the report
    double plan_time = 0;

    std::string phase;
    std::string item;
    uint64_t item_total = 0;
    uint64_t item_done = 0;
    bool item_counted = false;
    double item_time = 0;
    double drawn_time = -1;

    std::string first_trace; // the first failure since the last mark, else an earlier one
    bool found = false;      // first_trace was traced since the last mark
};

report_state state;

double now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// One decimal, cut rather than rounded, so that 100 shows only when everything is done.
double one_decimal(double v)
{
    return std::floor(v * 10.0) / 10.0;
}

// Bytes in a short human form: "812 B", "4.0 KiB", "12.5 MiB".
std::string human(double bytes)
{
    char buf[32];
    if (bytes < 1024)
        snprintf(buf, sizeof(buf), "%.0f B", bytes);
    else if (bytes < 1024.0 * 1024)
        snprintf(buf, sizeof(buf), "%.1f KiB", bytes / 1024);
    else
        snprintf(buf, sizeof(buf), "%.1f MiB", bytes / (1024.0 * 1024));
    return buf;
}

// Bytes per second of the work so far: of the plan once there is one, else of the item.
double rate(double t)
{
    const double since = state.planned ? t - state.plan_time : t - state.item_time;
    const uint64_t bytes =
        state.planned ? state.done + (state.item_counted ? state.item_done : 0) : state.item_done;
    return since > 0.05 ? static_cast<double>(bytes) / since : 0;
}

void clear_line()
{
    if (state.drawn) {
        fputs("\r\033[K", stderr);
        state.drawn = false;
    }
}

void draw(double t)
{
    const double r = rate(t);
    std::string line = state.phase + " " + state.item + "  " +
                       human(static_cast<double>(state.item_done)) + "/" +
                       human(static_cast<double>(state.item_total));
    char tail[96];
    snprintf(tail, sizeof(tail), "  %5.1f%%", one_decimal(state.percent));
    line += tail;
    if (r > 0) {
        line += "  " + human(r) + "/s";
        const uint64_t all_done = state.done + (state.item_counted ? state.item_done : 0);
        if (state.planned && state.total > all_done) {
            const long left = std::lround(static_cast<double>(state.total - all_done) / r);
            snprintf(tail, sizeof(tail), "  %ld:%02ld left", left / 60, left % 60);
            line += tail;
        }
    }
    // Never wider than the terminal: a wrapped line could not be drawn over.
    if (state.columns > 1 && line.size() >= static_cast<size_t>(state.columns))
        line.resize(static_cast<size_t>(state.columns - 1));
    if (state.stdout_tty)
        fflush(stdout);
    fprintf(stderr, "\r%s\033[K", line.c_str());
    fflush(stderr);
    state.drawn = true;
    state.drawn_time = t;
}

void write_progress()
{
    cJSON *event = vireo_report_event("progress");
    if (!event)
        return;
    cJSON_AddStringToObject(event, "phase", state.phase.c_str());
    cJSON_AddStringToObject(event, "item", state.item.c_str());
    cJSON_AddNumberToObject(event, "done", static_cast<double>(state.item_done));
    cJSON_AddNumberToObject(event, "total", static_cast<double>(state.item_total));
    cJSON_AddNumberToObject(event, "percent", one_decimal(state.percent));
    vireo_report_write(event);
}

void update_percent()
{
    if (!state.planned)
        return;
    uint64_t all = state.done + (state.item_counted ? state.item_done : 0);
    all = std::min(all, state.total);
    const double p = state.total == 0
                         ? 100.0
                         : state.floor + (100.0 - state.floor) * static_cast<double>(all) /
                                             static_cast<double>(state.total);
    state.percent = std::max(state.percent, std::min(p, 100.0));
}

// Tells the state: always at an item's edges (forced), else when the whole percent moved
// (report) or the line is old (terminal).
void tell(bool forced)
{
    update_percent();
    const int whole = static_cast<int>(state.percent);
    if (state.file && state.progress_events && (forced || whole > state.reported)) {
        state.reported = whole;
        write_progress();
    }
    // When standard output is the same terminal, the phases whose record reads print
    // tables are not drawn: a table printed after the line would continue it.
    const bool prints = state.phase == "verifying" || state.phase == "flags";
    if (state.tty && !(state.stdout_tty && prints)) {
        const double t = now();
        if (forced || t - state.drawn_time >= kDrawInterval)
            draw(t);
    }
}

} // namespace

int32_t vireo_report_open(const char *path)
{
    // Not inherited by the shell commands an upgrade runs.
    FILE *f = fopen(path, "we");
    if (!f) {
        fprintf(stderr, "cannot write the report to %s: %s\n", path, strerror(errno));
        return -1;
    }
    state.file = f;
    return 0;
}

void vireo_progress_open()
{
#ifndef VIREO_NO_TERMINAL_PROGRESS
    if (!isatty(STDERR_FILENO))
        return;
    state.tty = true;
    state.stdout_tty = isatty(STDOUT_FILENO) != 0;
    winsize ws{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
        state.columns = ws.ws_col;
#endif
}

bool vireo_report_on()
{
    return state.file || state.tty;
}

void vireo_report_close()
{
    if (state.file) {
        fclose(state.file);
        state.file = nullptr;
    }
    state = report_state{};
}

cJSON *vireo_report_event(const char *event)
{
    if (!state.file)
        return nullptr;
    cJSON *obj = cJSON_CreateObject();
    if (obj)
        cJSON_AddStringToObject(obj, "event", event);
    return obj;
}

// Writes one line to the report. A reader that has gone away must not end the upgrade:
// SIGPIPE is held back while the line is written, and the report stops at the first error.
static void write_line(const char *text)
{
    sigset_t pipe_only, old, pending;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigprocmask(SIG_BLOCK, &pipe_only, &old);
    sigpending(&pending);
    const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
    // A program reading the report sees each event as it happens.
    const bool ok =
        fputs(text, state.file) >= 0 && fputc('\n', state.file) != EOF && fflush(state.file) == 0;
    if (!ok) {
        fprintf(stderr, "cannot write the report any more: %s\n", strerror(errno));
        fclose(state.file);
        state.file = nullptr;
    }
    sigpending(&pending);
    if (!was_pending && sigismember(&pending, SIGPIPE) == 1) {
        const timespec none{0, 0};
        sigtimedwait(&pipe_only, nullptr, &none);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

void vireo_report_write(cJSON *event)
{
    if (!event)
        return;
    char *text = state.file ? cJSON_PrintUnformatted(event) : nullptr;
    if (text) {
        write_line(text);
        cJSON_free(text);
    }
    cJSON_Delete(event);
}

void vireo_report_start(const char *command, const char *file, const char *work_mode)
{
    state.progress_events = strcmp(command, "check") != 0;
    cJSON *event = vireo_report_event("start");
    if (!event)
        return;
    cJSON_AddStringToObject(event, "command", command);
    if (file)
        cJSON_AddStringToObject(event, "file", file);
    else
        cJSON_AddNullToObject(event, "file");
    cJSON_AddStringToObject(event, "work_mode", work_mode);
    vireo_report_write(event);
    vireo_report_mark();
}

void vireo_report_result(int32_t status, int32_t command_result)
{
    if (command_result == 0) {
        state.planned = true;
        state.percent = 100;
    }
    if (state.tty && !state.phase.empty()) {
        draw(now());
        fputc('\n', stderr);
        fflush(stderr);
        state.drawn = false;
    }
    cJSON *event = vireo_report_event("result");
    if (!event)
        return;
    cJSON_AddNumberToObject(event, "status", status & 0xFF);
    if (command_result != 0)
        cJSON_AddStringToObject(event, "message", vireo_report_first_trace());
    vireo_report_write(event);
}

void vireo_progress_plan(uint64_t total)
{
    if (!vireo_report_on())
        return;
    state.planned = true;
    state.total = total;
    state.done = 0;
    const double all = static_cast<double>(state.verified) + static_cast<double>(total);
    state.floor = all > 0 ? 100.0 * static_cast<double>(state.verified) / all : 0;
    state.percent = std::max(state.percent, state.floor);
    state.plan_time = now();
}

void vireo_progress_item(const char *phase, const char *item, uint64_t total, bool counted)
{
    if (!vireo_report_on())
        return;
    state.phase = phase;
    state.item = item;
    state.item_total = total;
    state.item_done = 0;
    state.item_counted = counted && state.planned;
    state.item_time = now();
    vireo_report_mark();
    tell(true);
}

void vireo_progress_done(uint64_t done)
{
    if (!vireo_report_on())
        return;
    state.item_done = std::min(done, state.item_total);
    tell(false);
}

void vireo_progress_item_done()
{
    if (!vireo_report_on())
        return;
    state.item_done = state.item_total;
    if (!state.planned && state.phase == "verifying")
        state.verified += state.item_total;
    tell(true);
    if (state.item_counted)
        state.done += state.item_total;
    // The item stays on the line, done, until the next one starts.
    state.item_counted = false;
}

double vireo_progress_percent()
{
    return state.percent;
}

// Whether a trace message tells of a failure or a refusal. The traces do not say which
// they are; these are the words the failures of this tool are told with.
static bool tells_failure(const std::string &message)
{
    static const char *const words[] = {
        "fail",        "faield",   "invalid",   "invlaid",   "not found",   "unmatch",   "un-match",
        "not pass",    "must be",  "too long",  "too much",  "too short",   "truncated", "outside",
        "overflow",    "conflict", "cannot",    "can't",     "error",       "does not",  "did not",
        "other bytes", "changed ", "cut short", "no device", "present",     "exceeds",   "holds no",
        "no '",        "is null",  "bad ",      "size is 0", "not allowed", "no random", " > ",
        " < ",         " <= "};
    std::string lower(message);
    for (char &c : lower)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    // A warning the reader goes on after.
    if (lower.find("skip it") != std::string::npos || lower.find("no changed") != std::string::npos)
        return false;
    for (const char *w : words)
        if (lower.find(w) != std::string::npos)
            return true;
    return false;
}

void vireo_report_trace(const char *fmt, va_list ap)
{
    if (state.tty && state.stdout_tty)
        clear_line();
    if (!state.file || state.found)
        return;
    char buf[512];
    vsnprintf(buf, sizeof(buf), fmt, ap);
    std::string message = buf;
    // The message without its line endings.
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    if (!tells_failure(message))
        return;
    state.first_trace = message;
    state.found = true;
}

void vireo_report_mark()
{
    state.found = false;
}

int32_t vireo_report_failure(const char *message)
{
    state.first_trace = message;
    state.found = true;
    return -1;
}

const char *vireo_report_first_trace()
{
    return state.first_trace.c_str();
}
