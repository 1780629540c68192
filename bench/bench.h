// What the benchmarks share: temporary directories, medians and the ratio lines that run.sh collects.
//
// Every figure is a ratio to a floor measured in the same run, by the same means, in turns with it, so that
// neither the machine's speed nor what else it does at the time counts.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

// A fresh directory, removed with what is in it at the end of the program's scope.
struct temp_dir {
    std::string path;
    temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    ~temp_dir();
    std::string operator/(const char *name) const { return path + "/" + name; }
};

// Tells what cannot be measured around, and ends the program.
[[noreturn]] void give_up(const char *what);

double median(std::vector<double> values);
// Seconds on the monotonic clock, and of processor time used by this process.
double wall_sec();
double cpu_sec();

// One line of the table. `aim` is what the ratio should be at least (negative: at most its absolute value),
// 0 = no aim.
__attribute__((format(printf, 4, 5))) void tell_ratio(const char *name, double ratio, double aim,
                                                      const char *detail, ...);
// A line of text for the table's foot.
__attribute__((format(printf, 1, 2))) void tell_note(const char *format, ...);

// One side of a comparison: runs once, and returns the seconds that count, as it measured them.
using timed_fn = std::function<double()>;
struct paired {
    double ratio;       // median of the rounds' ratios
    double subject_sec; // medians
    double floor_sec;
};
// `rounds` times subject and floor in turns, after one round of each for warmth.
paired measure_pair(int rounds, const timed_fn &subject, const timed_fn &floor);

// Benchmarks registered with the library, compared by their processor time.
struct bench_pair {
    const char *name;
    const char *subject;
    const char *floor;
    double aim;
};
// Runs all registered benchmarks with their repetitions shuffled, and tells the ratios of the medians.
int run_pairs(int argc, char **argv, std::span<const bench_pair> pairs);
// The median processor nanoseconds of one benchmark of the last run_pairs.
double median_ns(const std::string &name);
