// How many of the processors this process may use are taken by other processes: the pieces of the
// default thread budget that do not touch the system, so that they can be checked on given input.
//
// The busy time of each processor comes from the per-processor lines of /proc/stat, in clock ticks:
// user, nice, system, irq, softirq and steal count as busy; idle and iowait as not. Between two
// samples, the busy ticks of the allowed processors less this process's own CPU time are the time
// other processes (and this process's children) kept those processors, and divided by the window
// they give the number of processors taken.
#pragma once
#include <sched.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace omk::core {

struct CpuTicks {
    uint64_t busy = 0, total = 0;
    int cpus = 0;  // allowed processors that had a line
};

// Reads the text of /proc/stat a piece at a time: each complete line is parsed as it arrives and a
// partial line is kept for the next piece. Lines "cpuN ..." of processors in `allowed` are summed;
// the first line that is neither the total "cpu " line nor a "cpuN" line ends the reading
// (done() turns true), so the long interrupt lines after them are never held.
class StatReader {
public:
    explicit StatReader(const cpu_set_t& allowed) : allowed_(allowed) {}

    // Gives the next `n` bytes of the text; returns false once the processor lines have ended.
    bool feed(const char* text, size_t n) {
        for (size_t i = 0; i < n && !done_; ++i) {
            if (text[i] != '\n') {
                if (used_ < sizeof line_ - 1) line_[used_++] = text[i];
                continue;
            }
            line_[used_] = '\0';
            parseLine();
            used_ = 0;
        }
        return !done_;
    }
    bool done() const { return done_; }
    const CpuTicks& ticks() const { return ticks_; }

private:
    void parseLine() {
        if (line_[0] != 'c' || line_[1] != 'p' || line_[2] != 'u') {
            done_ = true;
            return;
        }
        if (line_[3] < '0' || line_[3] > '9') return;  // the total over every processor
        char* p = nullptr;
        const long cpu = std::strtol(line_ + 3, &p, 10);
        if (cpu < 0 || cpu >= CPU_SETSIZE || !CPU_ISSET(static_cast<int>(cpu), &allowed_)) return;
        // user nice system idle iowait irq softirq steal; guest time is already inside user.
        uint64_t field[8] = {};
        for (uint64_t& f : field) f = std::strtoull(p, &p, 10);
        const uint64_t busy = field[0] + field[1] + field[2] + field[5] + field[6] + field[7];
        ticks_.busy += busy;
        ticks_.total += busy + field[3] + field[4];
        ++ticks_.cpus;
    }

    const cpu_set_t& allowed_;
    CpuTicks ticks_;
    char line_[256];
    size_t used_ = 0;
    bool done_ = false;
};

// Processors taken by others, as a whole number that moves only when the measured share is more
// than 0.65 of a processor away from the count before: a process that keeps a processor for half
// the window, or the noise of ten-millisecond ticks over a short window, does not swing the budget
// back and forth between calls.
inline int processorsTaken(double share, int before) {
    if (share < 0) share = 0;
    if (share > before + 0.65 || share < before - 0.65) return static_cast<int>(share + 0.5);
    return before;
}

// The default budget: the runtime's maximum, at most the allowed processors that others leave
// free, and never below one.
inline int budgetFor(int maxThreads, int allowed, int taken) {
    int free = allowed - taken;
    if (free < 1) free = 1;
    return maxThreads < free ? maxThreads : free;
}

}  // namespace omk::core
