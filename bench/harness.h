// What all benchmarks share: clocks, pinning, series of measurements, and the two ways to run contenders against
// each other. The first contender of a comparison is its baseline; all of them run in short alternating rounds, so
// that a busy or throttled machine hurts each alike, and the ratios are taken round by round.
#ifndef VORN_BENCH_HARNESS_H
#define VORN_BENCH_HARNESS_H

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

struct settings {
    bool quick = false;
    std::vector<std::string> only;  // parts of names of scenarios; empty: all
    bool two_cores = false;
    std::string clhsim;  // path of the stand-in server; empty: not there
};

int64_t now_ns();
[[noreturn]] void give_up(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Where the two ends of a connection run. Left to itself, a kernel may put both on one core or on two, as it likes.
enum class placement { one_core, two_cores, anywhere };

// Binds the calling thread, and the threads and processes that it makes from now on, to the cores of that end.
void place_server(placement where);
void place_client(placement where);
int core_count();  // that this program may run on

// What one contender gave.
struct series {
    std::vector<double> rates;    // one a round, in trips a second
    std::vector<uint32_t> times;  // of each trip, in nanoseconds
};

using trip = std::function<void()>;

// A contender that is a process of its own, for what is the process's in the library: the parent has it run its
// rounds, and takes the figures from it.
struct apart {
    pid_t pid;
    int orders, figures;  // pipes
};

struct contender {
    std::string name;
    trip once;
    const apart *elsewhere = nullptr;  // runs the rounds in place of `once`
};

// Makes such a process, before the caller's own first use of the library. `set_up` runs in it and gives its trip.
apart start_apart(const std::function<trip()> &set_up);
void stop_apart(apart *other);

// How long to measure.
struct schedule {
    int rounds;
    int64_t round_ns;
};
schedule trip_schedule(const settings &chosen);
schedule crew_schedule(const settings &chosen);

// Runs contenders on this thread in alternating rounds.
std::vector<series> alternate(const std::vector<contender> &contenders, schedule plan);

// A contender of several threads. `set_up` runs in each of them and gives its trip; `tear_down` runs at the end.
struct crew_plan {
    std::string name;
    int threads;
    std::function<trip(int index)> set_up;
    std::function<void(int index)> tear_down;
};
std::vector<series> alternate_crews(const std::vector<crew_plan> &plans, schedule plan);

double median(std::vector<double> values);
double percentile(const std::vector<uint32_t> &sorted, double part);

// Ratio of two contenders' rates, round by round: the median and the quartiles.
struct spread {
    double low, middle, high;
};
spread ratio(const series &measured, const series &baseline);

// The tables. A row's ratio is left out for the baseline itself.
void print_heading(const char *title);
void print_trip_columns();
void print_trip_row(const std::string &what, series measured, const series *baseline, double aim = 0);

#endif
