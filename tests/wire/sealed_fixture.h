// A bare connection with a session of the scripted cipher.
#ifndef VORN_TESTS_WIRE_SEALED_FIXTURE_H
#define VORN_TESTS_WIRE_SEALED_FIXTURE_H

#include "runtime/semantics.h"
#include "wire/cipher.h"
#include "wire/envelope.h"
#include "wire/receive_fixture.h"

// The switch is on, and no keys have been exchanged. In the end no handle is open and none was misused.
struct CipherTest : Receive {
    CipherTest()
    {
        _vorn_crypt_sw = 1;
        cipher::fake.scripted = true;
        block->started = 0;  // as at the start of a session
    }
    ~CipherTest() override
    {
        end_cipher(block);
        EXPECT_EQ(cipher::fake.live(), 0) << "handles that nobody has closed";
        EXPECT_EQ(cipher::fake.misuses, 0);
    }

    // Runs the exchange with a provider that goes these steps, and is finished behind them.
    int run(std::initializer_list<cipher::step> steps)
    {
        cipher::fake.inputs.clear();
        cipher::fake.lengths.clear();
        cipher::fake.steps = steps;
        set_tperrno(0);
        errno = 0;
        return _vorn_negotiate(block);
    }
    void expect_free()
    {
        EXPECT_EQ(block->reader_busy, 0);
        EXPECT_EQ(block->waiter_count, 0);
        EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
        pthread_mutex_unlock(&block->msg_mutex);
    }
    void expect_failure(int code)
    {
        EXPECT_EQ(error(), code);
        expect_free();
    }
    void expect_closed()
    {
        EXPECT_EQ(block->clhfd, -1);
        EXPECT_EQ(block->started, 0);
        EXPECT_EQ(block->crypt_sess, nullptr);
        EXPECT_EQ(cipher::fake.live(), 0);
    }
};

// The keys stand.
struct SealedTest : CipherTest {
    cipher::Server server{peer};

    SealedTest() { establish(); }

    void establish()
    {
        EXPECT_EQ(run({}), 1);
        block->started = 1;
    }
    // A fresh connection with keys of its own.
    void again()
    {
        if (sender.joinable())
            sender.join();
        reconnect();
        establish();
    }
};

#endif
