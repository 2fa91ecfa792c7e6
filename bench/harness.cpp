#include "harness.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

void give_up(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fflush(stdout);
    fputs("bench: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    _Exit(1);
}

static cpu_set_t cores_at_start()
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    sched_getaffinity(0, sizeof cores, &cores);
    return cores;
}

static const cpu_set_t &all_cores()
{
    static const cpu_set_t cores = cores_at_start();
    return cores;
}

int core_count()
{
    return CPU_COUNT(&all_cores());
}

static void run_on(const cpu_set_t &cores)
{
    if (sched_setaffinity(0, sizeof cores, &cores) != 0)
        give_up("can't choose the cores to run on");
}

// Counted from the last core: the first serves most of the machine's interrupts.
static void run_on_core(int number)
{
    for (int core = CPU_SETSIZE - 1; core >= 0; core--) {
        if (!CPU_ISSET(core, &all_cores()) || number-- > 0)
            continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(core, &one);
        run_on(one);
        return;
    }
    give_up("not enough cores");
}

void place_server(placement where)
{
    if (where == placement::anywhere)
        run_on(all_cores());
    else
        run_on_core(where == placement::two_cores ? 1 : 0);
}

void place_client(placement where)
{
    if (where == placement::anywhere)
        run_on(all_cores());
    else
        run_on_core(0);
}

schedule trip_schedule(const settings &chosen)
{
    return chosen.quick ? schedule{12, 20'000'000} : schedule{100, 20'000'000};
}

schedule crew_schedule(const settings &chosen)
{
    return chosen.quick ? schedule{6, 40'000'000} : schedule{30, 60'000'000};
}

static void write_whole(int fd, const void *bytes, size_t size)
{
    for (const char *next = (const char *)bytes; size > 0;) {
        ssize_t done = write(fd, next, size);
        if (done <= 0)
            give_up("a pipe of the benchmark is broken");
        next += done;
        size -= (size_t)done;
    }
}

static void read_whole(int fd, void *bytes, size_t size)
{
    for (char *next = (char *)bytes; size > 0;) {
        ssize_t done = read(fd, next, size);
        if (done <= 0)
            give_up("a process of the benchmark has ended");
        next += done;
        size -= (size_t)done;
    }
}

// The figures of one round: its rate, the number of its trips, their times.
static void take_round(const apart *other, int64_t length, series *result)
{
    double rate;
    uint64_t count;
    write_whole(other->orders, &length, sizeof length);
    read_whole(other->figures, &rate, sizeof rate);
    read_whole(other->figures, &count, sizeof count);
    size_t before = result->times.size();
    result->times.resize(before + count);
    read_whole(other->figures, result->times.data() + before, count * sizeof(uint32_t));
    result->rates.push_back(rate);
}

static void run_round(const contender &runner, int64_t length, series *result)
{
    if (runner.elsewhere != nullptr)
        return take_round(runner.elsewhere, length, result);
    for (int i = 0; i < 3; i++)  // caches and sockets warm again after the other's round
        runner.once();
    int64_t begin = now_ns(), last = begin;
    size_t before = result->times.size();
    while (last - begin < length) {
        runner.once();
        int64_t now = now_ns();
        result->times.push_back((uint32_t)(now - last));
        last = now;
    }
    result->rates.push_back((double)(result->times.size() - before) * 1e9 / (double)(last - begin));
}

std::vector<series> alternate(const std::vector<contender> &contenders, schedule plan)
{
    std::vector<series> results(contenders.size());
    for (series &result : results)
        result.times.reserve(4'000'000);
    for (int round = 0; round < plan.rounds; round++)
        for (size_t i = 0; i < contenders.size(); i++)
            run_round(contenders[i], plan.round_ns, &results[i]);
    return results;
}

[[noreturn]] static void run_as_ordered(const contender &runner, int orders, int figures)
{
    int64_t length;
    while (read(orders, &length, sizeof length) == (ssize_t)sizeof length) {
        series round;
        run_round(runner, length, &round);
        uint64_t count = round.times.size();
        write_whole(figures, &round.rates[0], sizeof(double));
        write_whole(figures, &count, sizeof count);
        write_whole(figures, round.times.data(), count * sizeof(uint32_t));
    }
    _exit(0);
}

apart start_apart(const std::function<trip()> &set_up)
{
    int orders[2], figures[2];
    if (pipe(orders) != 0 || pipe(figures) != 0)
        give_up("no pipes");
    pid_t pid = fork();
    if (pid < 0)
        give_up("no process of its own for a contender");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(orders[1]);
        close(figures[0]);
        run_as_ordered({"", set_up()}, orders[0], figures[1]);
    }
    close(orders[0]);
    close(figures[1]);
    return {pid, orders[1], figures[0]};
}

void stop_apart(apart *other)
{
    close(other->orders);
    close(other->figures);
    kill(other->pid, SIGKILL);  // later ones hold the other end of its pipe too: it would wait on
    waitpid(other->pid, nullptr, 0);
    other->pid = -1;
}

// The threads of one contender. They sleep outside their rounds.
struct crew {
    const crew_plan *plan;
    std::vector<std::thread> threads;
    std::vector<std::vector<uint32_t>> times;
    std::atomic<int> round{0};  // odd: running
    std::atomic<int> busy{0};   // threads still in set-up, or in the round
    std::atomic<bool> stop{false};
    std::atomic<bool> ended{false};
};

static void leave_round(crew *team)
{
    if (team->busy.fetch_sub(1) == 1)
        team->busy.notify_all();
}

static void await_idle(crew *team)
{
    for (int busy = team->busy.load(); busy > 0; busy = team->busy.load())
        team->busy.wait(busy);
}

static void work(crew *team, int index)
{
    trip once = team->plan->set_up(index);
    std::vector<uint32_t> &times = team->times[(size_t)index];
    times.reserve(1'000'000);
    int seen = team->round.load();
    leave_round(team);
    for (;;) {
        team->round.wait(seen);
        seen = team->round.load();
        if (team->ended.load())
            break;
        int64_t last = now_ns();
        while (!team->stop.load(std::memory_order_relaxed)) {
            once();
            int64_t now = now_ns();
            times.push_back((uint32_t)(now - last));
            last = now;
        }
        leave_round(team);
    }
    if (team->plan->tear_down)
        team->plan->tear_down(index);
}

static void run_crew_round(crew *team, int64_t length, series *result)
{
    auto done = [team] {
        size_t sum = 0;
        for (const auto &times : team->times)
            sum += times.size();
        return sum;
    };
    size_t before = done();
    team->stop = false;
    team->busy = team->plan->threads;
    int64_t begin = now_ns();
    team->round++;
    team->round.notify_all();
    timespec pause = {0, (long)length};
    nanosleep(&pause, nullptr);
    team->stop = true;
    await_idle(team);
    result->rates.push_back((double)(done() - before) * 1e9 / (double)(now_ns() - begin));
}

std::vector<series> alternate_crews(const std::vector<crew_plan> &plans, schedule plan)
{
    std::vector<std::unique_ptr<crew>> crews;
    for (const crew_plan &one : plans) {
        auto team = std::make_unique<crew>();
        team->plan = &one;
        team->times.resize((size_t)one.threads);
        team->busy = one.threads;
        for (int i = 0; i < one.threads; i++)
            team->threads.emplace_back(work, team.get(), i);
        await_idle(team.get());
        crews.push_back(std::move(team));
    }
    std::vector<series> results(plans.size());
    for (int round = 0; round < plan.rounds; round++)
        for (size_t i = 0; i < crews.size(); i++)
            run_crew_round(crews[i].get(), plan.round_ns, &results[i]);
    for (size_t i = 0; i < crews.size(); i++) {
        crews[i]->ended = true;
        crews[i]->round++;
        crews[i]->round.notify_all();
        for (std::thread &thread : crews[i]->threads)
            thread.join();
        for (const auto &times : crews[i]->times)
            results[i].times.insert(results[i].times.end(), times.begin(), times.end());
    }
    return results;
}

static double quantile(std::vector<double> values, double part)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, (size_t)(part * (double)values.size()))];
}

double median(std::vector<double> values)
{
    return quantile(std::move(values), 0.5);
}

double percentile(const std::vector<uint32_t> &sorted, double part)
{
    return sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, (size_t)(part * (double)sorted.size()))];
}

spread ratio(const series &measured, const series &baseline)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < measured.rates.size() && i < baseline.rates.size(); i++)
        ratios.push_back(measured.rates[i] / baseline.rates[i]);
    return {quantile(ratios, 0.25), quantile(ratios, 0.5), quantile(ratios, 0.75)};
}

void print_heading(const char *title)
{
    printf("\n%s\n", title);
}

void print_trip_columns()
{
    printf("  %-44s %11s %9s %9s   %s\n", "", "trips/s", "p50 us", "p99 us", "ratio (quartiles)");
}

void print_trip_row(const std::string &what, series measured, const series *baseline, double aim)
{
    std::sort(measured.times.begin(), measured.times.end());
    printf("  %-44s %11.0f %9.2f %9.2f", what.c_str(), median(measured.rates),
           percentile(measured.times, 0.50) / 1000, percentile(measured.times, 0.99) / 1000);
    if (baseline != nullptr) {
        spread share = ratio(measured, *baseline);
        printf("   %.3f (%.3f-%.3f)", share.middle, share.low, share.high);
        if (aim > 0)
            printf("  aim %.2f %s", aim, share.middle >= aim ? "met" : "MISSED");
    }
    printf("\n");
    fflush(stdout);
}
