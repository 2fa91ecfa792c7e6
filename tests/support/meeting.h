// Threads that wait for each other. Whoever waits sleeps: one that spins, even if it steps aside each time, has all
// that runs on a busy machine go first, and a test of some thousand meetings takes minutes.
#ifndef VORN_TESTS_SUPPORT_MEETING_H
#define VORN_TESTS_SUPPORT_MEETING_H

#include <atomic>

// So many threads meet here and go on at the same moment, as often as they like.
struct Meeting {
    const int parties;
    std::atomic<int> arrived{0};

    explicit Meeting(int count) : parties(count) {}
    void meet()
    {
        int mine = ++arrived, all = (mine + parties - 1) / parties * parties;
        if (mine == all)
            arrived.notify_all();
        for (int now = arrived; now < all; now = arrived)
            arrived.wait(now);
    }
};

// Opens once, for all that wait in front of it or come later.
struct Door {
    std::atomic<bool> is_open{false};

    void open()
    {
        is_open = true;
        is_open.notify_all();
    }
    void pass() { is_open.wait(false); }
};

#endif
