// What single calls cost that don't talk to the server: buffers, and the frame of a trivial call.
#include "scenarios.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vorn.h>

constexpr int REPEATS = 2000;  // calls a measurement of the clock

// Nanoseconds of one call: the median of many short measurements.
static double cost(const trip &once, int measurements)
{
    std::vector<double> values;
    for (int i = 0; i < measurements; i++) {
        int64_t begin = now_ns();
        once();
        values.push_back((double)(now_ns() - begin) / REPEATS);
    }
    return median(values);
}

template <typename Call> static trip repeated(Call call)
{
    return [call] {
        for (int i = 0; i < REPEATS; i++)
            call();
    };
}

static void keep(const void *pointer)
{
    asm volatile("" : : "r"(pointer) : "memory");
}

void buffers(const settings &chosen, placement)
{
    place_client(placement::one_core);
    int measurements = chosen.quick ? 100 : 1000;
    printf("  %-44s %11s %11s   %s\n", "", "calloc+free", "ns", "times as long");
    for (size_t size : {(size_t)4, (size_t)1024, (size_t)65536}) {
        size_t room = (size < 1024 ? 1024 : size) + 200;  // what a buffer of that size really takes
        trip plain = repeated([room] {
            void *block = calloc(1, room);
            keep(block);
            free(block);
        });
        trip typed = repeated([size] {
            char *buffer = tpalloc((char *)"CARRAY", nullptr, (long)size);
            keep(buffer);
            tpfree(buffer);
        });
        // Interleaved by hand: the median of ratios of neighbours.
        std::vector<double> plains, typeds, ratios;
        for (int i = 0; i < 10; i++) {
            plains.push_back(cost(plain, measurements / 10));
            typeds.push_back(cost(typed, measurements / 10));
            ratios.push_back(typeds.back() / plains.back());
        }
        printf("  tpalloc + tpfree, %-26zu %11.1f %11.1f   %.2f\n", size, median(plains), median(typeds),
               median(ratios));
    }
}

// --- The frame of a call.

struct parked_threads {
    std::vector<std::thread> threads;
    std::mutex mutex;
    std::condition_variable changed;
    int bound = 0;
    bool ended = false;
};

// Threads that are bound to a context of their own and do nothing.
static void park(parked_threads *parked, int count)
{
    for (int i = 0; i < count; i++) {
        parked->threads.emplace_back([parked] {
            open_session(TPMULTICONTEXTS);
            std::unique_lock lock(parked->mutex);
            parked->bound++;
            parked->changed.notify_all();
            parked->changed.wait(lock, [parked] { return parked->ended; });
            lock.unlock();
            tpend();
        });
    }
    std::unique_lock lock(parked->mutex);
    parked->changed.wait(lock, [parked, count] { return parked->bound == count; });
}

static void release(parked_threads *parked)
{
    {
        std::lock_guard lock(parked->mutex);
        parked->ended = true;
        parked->changed.notify_all();
    }
    for (std::thread &thread : parked->threads)
        thread.join();
}

struct trivial_call {
    const char *name;
    trip run;
    double aim;  // ns; 0: none
};

static std::vector<trivial_call> trivial_calls(char *buffer)
{
    return {
        {"tptypes(buffer, NULL, NULL)", repeated([buffer] { tptypes(buffer, nullptr, nullptr); }), 25},
        {"tpcancel(-1), with its error", repeated([] { tpcancel(-1); }), 25},
        {"gettperrno()", repeated([] { gettperrno(); }), 0},
        {"tpgetctxt(&context, 0)", repeated([] {
             int context;
             tpgetctxt(&context, 0);
             keep(&context);
         }),
         0},
    };
}

constexpr int BOUND_THREADS = 200;

// The measuring thread binds its row last, so that a walk of the table would be as long as it can be.
void frames(const settings &chosen, placement)
{
    place_client(placement::one_core);
    int measurements = chosen.quick ? 100 : 500, cycles = chosen.quick ? 2 : 5;
    server peer = start_responder();
    point_library_at(peer);
    char *buffer = nullptr;
    std::vector<trivial_call> calls;
    std::vector<std::vector<double>> alone, crowded, ratios;
    for (int cycle = 0; cycle < cycles; cycle++) {
        std::vector<double> costs[2];
        for (int many = 0; many < 2; many++) {
            parked_threads parked;
            if (many)
                park(&parked, BOUND_THREADS - 1);
            open_session(TPMULTICONTEXTS);
            if (buffer == nullptr) {
                buffer = new_carray(4);
                calls = trivial_calls(buffer);
                alone.resize(calls.size());
                crowded.resize(calls.size());
                ratios.resize(calls.size());
            }
            for (const trivial_call &call : calls)
                costs[many].push_back(cost(call.run, measurements));
            tpend();
            release(&parked);
        }
        for (size_t i = 0; i < calls.size(); i++) {
            alone[i].push_back(costs[0][i]);
            crowded[i].push_back(costs[1][i]);
            ratios[i].push_back(costs[1][i] / costs[0][i]);
        }
    }
    printf("  %-44s %11s %11s   %s\n", "", "ns, 1 bound", "200 bound", "times as long");
    for (size_t i = 0; i < calls.size(); i++) {
        double one = median(alone[i]);
        printf("  %-44s %11.1f %11.1f   %.2f", calls[i].name, one, median(crowded[i]), median(ratios[i]));
        if (calls[i].aim > 0)
            printf("  aim %.0f ns %s", calls[i].aim, one < calls[i].aim ? "met" : "MISSED");
        printf("\n");
    }
    stop_server(&peer);
}
