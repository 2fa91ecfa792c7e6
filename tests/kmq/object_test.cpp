// Producers, consumers and browsers: their requests as they travel, what is refused, how they go.
#include "kmq/fixture.h"

namespace {

struct Objects : KmqTest {
    // What stands behind the header of a request.
    static std::string names(const std::string &subname, const std::string &queue,
                             const std::string &consname)
    {
        auto padded = [](std::string name, size_t size) {
            name.resize(size);
            return name;
        };
        return padded(subname, 32) + padded(queue, 16) + padded(consname, 32) + std::string(1, '\0');
    }
    void expect_null(const void *object, int error, where place = where::current())
    {
        EXPECT_EQ(object, nullptr) << place.line;
        EXPECT_EQ(gettperrno(), error) << place.line;
        peer.expect_nothing(place);
    }
    // The client's `close`, which the server answers.
    int closing(const std::function<int()> &close, const wire::with &answer = {},
                wire::frame *request = nullptr)
    {
        peer.play([&] {
            wire::frame came = peer.expect(wire::KMQ_OBJECT_CLOSE).frame;
            if (request != nullptr)
                *request = came;
            peer.reply_to(came, "", answer);
        });
        int result = close();
        peer.done();
        return result;
    }
    kmq_consumer *consume(int kind, int flags, wire::frame *request)
    {
        return make<kmq_consumer>(
            CONSUMER_ID,
            [&] { return kmq_create_consumer(session, "QUEUE", kind, "SUB", nullptr, "NAME", flags); },
            request);
    }
};

}  // namespace

TEST_F(Objects, ProducerAsItTravels)
{
    ASSERT_TRUE(open_session());
    wire::frame request;
    producer = make<kmq_producer>(
        PRODUCER_ID, [&] { return kmq_create_producer(session, "QUEUE", 1, "TOPIC", 5); }, &request);
    ASSERT_NE(producer, nullptr);
    EXPECT_EQ(request.buftype, wire::HEADER_ONLY);
    EXPECT_EQ(request.bufsize, 81);
    EXPECT_EQ(request.data, names("TOPIC", "QUEUE", ""));
    EXPECT_EQ(request.sessid, SESSION_ID);
    EXPECT_EQ(request.svcname, "_S");
    EXPECT_EQ(request.flags, 0x80u);
    EXPECT_EQ(producer->id, PRODUCER_ID);
    EXPECT_EQ(producer->flags, 0x80u);
    EXPECT_EQ(producer->session, session);
    EXPECT_STREQ(producer->queue, "QUEUE");
    EXPECT_STREQ(producer->subname, "TOPIC");
    EXPECT_EQ(session->producer_count, 1);
    EXPECT_EQ(gettperrno(), 0);
    expect_idle();
}

TEST_F(Objects, ProducersHangInTheOrderOfTheirMaking)
{
    ASSERT_TRUE(open_session());
    kmq_producer *made[3];
    for (int i = 0; i < 3; i++)
        made[i] = make<kmq_producer>(i + 1, [&] { return kmq_create_producer(session, "Q", 0, nullptr, 0); });
    EXPECT_EQ(session->producers, made[0]);
    EXPECT_EQ(made[0]->next, made[1]);
    EXPECT_EQ(made[2]->next, made[0]);
    EXPECT_EQ(made[0]->prev, made[2]);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(_search_prod_by_id(session, i + 1), made[i]);
    EXPECT_EQ(_search_prod_by_id(session, 4), nullptr);
    EXPECT_EQ(closing([&] { return kmq_close_producer(made[0], 0); }), 1);
    EXPECT_EQ(session->producers, made[1]);
    EXPECT_EQ(_search_prod_by_id(session, 1), nullptr);
    EXPECT_EQ(closing([&] { return kmq_close_producer(made[2], 0); }), 1);
    EXPECT_EQ(made[1]->next, made[1]);
    EXPECT_EQ(closing([&] { return kmq_close_producer(made[1], 0); }), 1);
    EXPECT_EQ(session->producers, nullptr);
    EXPECT_EQ(session->producer_count, 0);
}

TEST_F(Objects, ProducerIsRefused)
{
    ASSERT_TRUE(open_session());
    expect_null(kmq_create_producer(nullptr, "Q", 0, nullptr, 0), TPEINVAL);
    expect_null(kmq_create_producer(session, nullptr, 0, nullptr, 0), TPEINVAL);
    expect_null(kmq_create_producer(session, "", 0, nullptr, 0), TPEINVAL);
    expect_null(kmq_create_producer(session, std::string(16, 'q').c_str(), 0, nullptr, 0), TPEINVAL);
    expect_null(kmq_create_producer(session, "Q", 0, std::string(32, 's').c_str(), 0), TPEINVAL);
    for (int kind : {-1, 2, 3, INT_MAX, INT_MIN})
        expect_null(kmq_create_producer(session, "Q", kind, nullptr, 0), TPEINVAL);
    EXPECT_EQ(session->producer_count, 0);
}

TEST_F(Objects, LongestNamesTravelWhole)
{
    ASSERT_TRUE(open_session());
    std::string queue(15, 'q'), subname(31, 's'), consname(31, 'c');
    wire::frame request;
    consumer = make<kmq_consumer>(
        CONSUMER_ID,
        [&] {
            return kmq_create_consumer(session, queue.c_str(), 2, subname.c_str(), nullptr, consname.c_str(),
                                       0);
        },
        &request);
    ASSERT_NE(consumer, nullptr);
    EXPECT_EQ(request.data, names(subname, queue, consname));
    EXPECT_EQ(consumer->queue, queue);
    EXPECT_EQ(consumer->subname, subname);
    EXPECT_EQ(consumer->consname, consname);
}

TEST_F(Objects, ConsumersFlagsComeFromKindAndCallersFlags)
{
    ASSERT_TRUE(open_session());
    struct {
        int kind, flags;
        uint32_t expected;
    } rows[] = {{0, 0, 0x02}, {0, 1, 0x02},     {0, 0x7ff, 0x02}, {0, 0x800, 0x800}, {0, 0x801, 0x1800},
                {1, 0, 0x82}, {1, 0x801, 0x82}, {2, 0, 0xC2},     {2, 0x800, 0xC2}};
    for (auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.kind << ' ' << row.flags);
        wire::frame request;
        kmq_consumer *made = consume(row.kind, row.flags, &request);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(request.flags, row.expected);
        EXPECT_EQ(made->flags, row.expected);
        EXPECT_EQ(request.data, names("SUB", "QUEUE", "NAME"));
        EXPECT_EQ(made->last_cd, UINT32_MAX);
        EXPECT_EQ(made->last_word, UINT32_MAX);
        EXPECT_EQ(made->state, 0);
        EXPECT_EQ(made->selector, nullptr);
    }
    EXPECT_EQ(session->consumer_count, 9);
}

TEST_F(Objects, SelectorTravelsBehindTheNames)
{
    ASSERT_TRUE(open_session());
    for (const std::string &selector : {std::string("a"), std::string(), std::string(1023, 'x')}) {
        SCOPED_TRACE(selector.size());
        wire::frame request;
        kmq_consumer *made = make<kmq_consumer>(
            CONSUMER_ID,
            [&] { return kmq_create_consumer(session, "Q", 0, nullptr, selector.c_str(), nullptr, 0); },
            &request);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(request.datalen, (int32_t)selector.size() + 82);
        EXPECT_EQ(request.bufsize, request.datalen);
        EXPECT_EQ(request.data, names("", "Q", "").substr(0, 80) + selector + std::string(2, '\0'));
        EXPECT_EQ(made->selector, selector);
    }
}

TEST_F(Objects, ConsumerIsRefused)
{
    ASSERT_TRUE(open_session());
    auto create = [&](kmq_session *of, const char *queue, int kind, const char *sub, const char *selector,
                      const char *name) {
        return kmq_create_consumer(of, queue, kind, sub, selector, name, 0);
    };
    const std::string q16(16, 'q'), n32(32, 'n'), s1024(1024, 's');
    expect_null(create(nullptr, "Q", 0, nullptr, nullptr, nullptr), TPEINVAL);
    expect_null(create(session, nullptr, 0, nullptr, nullptr, nullptr), TPEINVAL);
    expect_null(create(session, "", 0, nullptr, nullptr, nullptr), TPEINVAL);
    expect_null(create(session, q16.c_str(), 0, nullptr, nullptr, nullptr), TPEINVAL);
    expect_null(create(session, "Q", 0, n32.c_str(), nullptr, nullptr), TPEINVAL);
    expect_null(create(session, "Q", 0, nullptr, s1024.c_str(), nullptr), TPEINVAL);
    expect_null(create(session, "Q", 0, nullptr, nullptr, n32.c_str()), TPEINVAL);
    expect_null(create(session, "Q", -1, nullptr, nullptr, nullptr), TPEINVAL);
    expect_null(create(session, "Q", 3, nullptr, nullptr, nullptr), TPEINVAL);
}

TEST_F(Objects, ServersRefusalTellsTheError)
{
    ASSERT_TRUE(open_session());
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            peer.expect(wire::KMQ_OBJECT_OPEN);
            peer.reply("", {.flags = TPENOENT});
        }
    });
    EXPECT_EQ(kmq_create_producer(session, "Q", 0, nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPENOENT);
    set_tperrno(0);
    EXPECT_EQ(kmq_create_consumer(session, "Q", 0, nullptr, "sel", nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.done();
    EXPECT_EQ(session->producer_count, 0);
    EXPECT_EQ(session->consumer_count, 0);
    expect_idle();
}

TEST_F(Objects, ReplyLargerThanTheRequestIsTaken)
{
    ASSERT_TRUE(open_session());
    peer.play([&] {
        wire::frame request = peer.expect(wire::KMQ_OBJECT_OPEN).frame;
        wire::frame reply = wire::answer(request, std::string(5000, 'r'), {.buftype = wire::CARRAY});
        reply.prio = PRODUCER_ID;
        peer.send(reply);
    });
    producer = kmq_create_producer(session, "Q", 0, nullptr, 0);
    ASSERT_NE(producer, nullptr);
    EXPECT_EQ(producer->id, PRODUCER_ID);
    EXPECT_STREQ(producer->queue, "Q");
}

TEST_F(Objects, AsynchronousSessionWantsNamesOfTheirOwn)
{
    ASSERT_TRUE(open_session([] { return kmq_create_async_session("S", nullptr, 0); }));
    auto create = [&](const char *name) {
        return kmq_create_consumer(session, "Q", 0, nullptr, nullptr, name, 0);
    };
    expect_null(create(nullptr), TPEINVAL);
    expect_null(create(""), TPEINVAL);
    ASSERT_NE(make_consumer(1, "one"), nullptr);
    expect_null(create("one"), TPEPROTO);
    ASSERT_NE(make_consumer(2, "two"), nullptr);
    EXPECT_EQ(session->consumer_count, 2);
}

TEST_F(Objects, ClosedSessionRefusesEverything)
{
    ASSERT_TRUE(open_session());
    producer = make_producer();
    consumer = make_consumer();
    close_by_server();
    expect_null(kmq_create_producer(session, "Q", 0, nullptr, 0), TPECLOSE);
    expect_null(kmq_create_producer(session, "Q", 9, nullptr, 0), TPECLOSE);
    expect_null(kmq_create_consumer(session, "Q", 0, nullptr, nullptr, nullptr, 0), TPECLOSE);
    expect_null(kmq_create_browser(session, "Q", nullptr, 0), TPECLOSE);
    expect_refused(kmq_close_producer(producer, 0), TPECLOSE);
    expect_refused(kmq_close_consumer(consumer, 0), TPECLOSE);
    expect_refused(kmq_unsubscribe_durable_subscriber(session, "Q", "S", 0), TPECLOSE);
    EXPECT_EQ(session->producer_count, 1);
    EXPECT_EQ(session->consumer_count, 1);
}

TEST_F(Objects, ClosingAsItTravels)
{
    ASSERT_TRUE(open_session());
    wire::frame request;
    producer = make_producer(1);
    EXPECT_EQ(closing([&] { return kmq_close_producer(producer, 3); }, {}, &request), 1);
    EXPECT_EQ(request.buftype, wire::HEADER_ONLY);
    EXPECT_EQ(request.datalen, 0);
    EXPECT_EQ(request.svcname, "_S");
    EXPECT_EQ(request.sessid, SESSION_ID);
    EXPECT_EQ(request.prio, PRODUCER_ID);
    EXPECT_EQ(request.flags, 0x80u);
    consumer = consume(2, 0, &request);
    EXPECT_EQ(closing([&] { return kmq_close_consumer(consumer, 3); }, {}, &request), 1);
    EXPECT_EQ(request.prio, CONSUMER_ID);
    EXPECT_EQ(request.flags, 0x82u) << "the durable subscription stays";
    expect_idle();
}

TEST_F(Objects, RefusedClosingStillRemovesTheObject)
{
    ASSERT_TRUE(open_session());
    producer = make_producer();
    consumer = make_browser(0, "selector");
    EXPECT_EQ(closing([&] { return kmq_close_producer(producer, 0); }, {.flags = TPESVCERR}), -1);
    EXPECT_EQ(gettperrno(), TPESVCERR);
    EXPECT_EQ(closing([&] { return kmq_close_browser(consumer, 0); }, {.flags = TPENOENT}), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(session->producers, nullptr);
    EXPECT_EQ(session->consumers, nullptr);
    EXPECT_EQ(session->producer_count + session->consumer_count, 0);
}

TEST_F(Objects, ClosingFreesWhatWasSaved)
{
    ASSERT_TRUE(open_session());
    consumer = make_consumer();
    arrive([&] { peer.send(delivery("unread")); });
    ASSERT_NE(consumer->saved, nullptr);
    EXPECT_EQ(closing([&] { return kmq_close_consumer(consumer, 0); }), 1);
}

TEST_F(Objects, LostConnectionLeavesTheObject)
{
    ASSERT_TRUE(open_session());
    producer = make_producer();
    consumer = make_consumer();
    peer.play([&] {
        peer.expect(wire::KMQ_OBJECT_CLOSE);
        peer.hang_up();
    });
    EXPECT_EQ(kmq_close_producer(producer, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    peer.done();
    EXPECT_EQ(session->producers, producer);
    EXPECT_EQ(kmq_close_consumer(consumer, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(session->consumers, consumer);
    EXPECT_EQ(kmq_create_producer(session, "Q", 0, nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
}

TEST_F(Objects, ClosingOfNothing)
{
    ASSERT_TRUE(open_session());
    expect_refused(kmq_close_producer(nullptr, 0), TPEINVAL);
    expect_refused(kmq_close_consumer(nullptr, 0), TPEINVAL);
    expect_refused(kmq_close_browser(nullptr, 0), TPEINVAL);
}

TEST_F(Objects, BrowserIsAConsumerThatBrowses)
{
    ASSERT_TRUE(open_session());
    kmq_consumer *plain = make_browser(), *on = make_browser(1), *other = make_browser(6);
    EXPECT_EQ(plain->flags, 0x800u);
    EXPECT_EQ(on->flags, 0x1800u);
    EXPECT_EQ(other->flags, 0x800u);
    EXPECT_EQ(session->consumer_count, 3);
    wire::frame request;
    EXPECT_EQ(closing([&] { return kmq_close_browser(on, 0); }, {}, &request), 1);
    EXPECT_EQ(request.flags, 0x1800u);
}

TEST_F(Objects, UnsubscribingAsItTravels)
{
    ASSERT_TRUE(open_session());
    wire::frame request;
    EXPECT_EQ(
        closing([&] { return kmq_unsubscribe_durable_subscriber(session, "TOPIC", "SUB", 0); }, {}, &request),
        1);
    EXPECT_EQ(request.flags, 0x42u);
    EXPECT_EQ(request.sessid, SESSION_ID);
    EXPECT_EQ(request.svcname, "_S");
    EXPECT_EQ(request.bufsize, 81);
    EXPECT_EQ(request.data, names("SUB", "TOPIC", ""));
    EXPECT_EQ(closing([&] { return kmq_unsubscribe_durable_subscriber(session, "", nullptr, 0); },
                      {.flags = TPENOENT}, &request),
              -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(request.data, names("", "", ""));
}

TEST_F(Objects, UnsubscribingIsRefused)
{
    ASSERT_TRUE(open_session());
    expect_refused(kmq_unsubscribe_durable_subscriber(nullptr, "Q", "S", 0), TPEINVAL);
    expect_refused(kmq_unsubscribe_durable_subscriber(session, nullptr, "S", 0), TPEINVAL);
    expect_refused(kmq_unsubscribe_durable_subscriber(session, std::string(16, 'q').c_str(), "S", 0),
                   TPEINVAL);
    expect_refused(kmq_unsubscribe_durable_subscriber(session, "Q", std::string(32, 's').c_str(), 0),
                   TPEINVAL);
}

TEST_F(Objects, UnsubscribingEndsAfterThirtySeconds)
{
    ASSERT_TRUE(open_session());
    peer.play([&] {
        peer.expect(wire::KMQ_OBJECT_CLOSE);
        let_time_run_out(31);
    });
    EXPECT_EQ(note(kmq_unsubscribe_durable_subscriber(session, "Q", "S", 0)), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    expect_idle();
}

TEST_F(Objects, BrowserTellsItsSelector)
{
    ASSERT_TRUE(open_session());
    kmq_consumer *browser = make_browser(0, "a = 1");
    char text[16] = "untouched";
    long length = 5;
    expect_refused(kmq_browser_get_msgselector(nullptr, text, &length, 0), TPEINVAL);
    expect_refused(kmq_browser_get_msgselector(browser, nullptr, &length, 0), TPEINVAL);
    expect_refused(kmq_browser_get_msgselector(browser, text, &length, 0), TPEINVAL);
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(text, "untouched");
    length = 6;
    EXPECT_EQ(kmq_browser_get_msgselector(browser, text, &length, 0), 1);
    EXPECT_STREQ(text, "a = 1");
    length = 100;
    EXPECT_EQ(kmq_browser_get_msgselector(browser, text, &length, 0), 1);
    EXPECT_EQ(length, 6);
    expect_refused(kmq_browser_get_msgselector(make_browser(), text, &length, 0), TPENOENT);
    expect_refused(kmq_browser_get_msgselector(make_browser(0, ""), text, &length, 0), TPENOENT);
}

TEST_F(Objects, BrowserTellsItsQueueAndLeavesTheError)
{
    ASSERT_TRUE(open_session());
    kmq_consumer *browser = make_browser();
    char text[16] = "";
    long length = 1;
    expect_refused(kmq_browser_get_queue(nullptr, text, &length, 0), TPEINVAL);
    expect_refused(kmq_browser_get_queue(browser, nullptr, &length, 0), TPEINVAL);
    expect_refused(kmq_browser_get_queue(browser, text, &length, 0), TPEINVAL);
    set_tperrno(TPELIMIT);
    EXPECT_EQ(kmq_browser_get_queue(browser, text, nullptr, 0), 1);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    EXPECT_STREQ(text, "Q");
    length = 2;
    EXPECT_EQ(kmq_browser_get_queue(browser, text, &length, 0), 1);
    EXPECT_EQ(length, 2);
    browser->queue[0] = '\0';
    expect_refused(kmq_browser_get_queue(browser, text, &length, 0), TPESYSTEM);
}

// Whatever allocation fails: the call ends with an error, nothing hangs half made in the session, and what was
// sent has been answered and read.
TEST_F(Objects, MemoryThatIsShortLeavesTheSessionAsItWas)
{
    ASSERT_TRUE(open_session());
    peer.play([&] {
        int32_t made = 0;
        wire::frame request;
        while (peer.receive(&request) && request.msgtype != wire::TPCALL)
            identify(peer, request, 0, ++made);
        peer.reply();
    });
    int failures = 0;
    for (int nth = 1;; nth++) {
        faults::fail_allocation(nth);
        kmq_consumer *made = kmq_create_consumer(session, "Q", 0, nullptr, "selector", nullptr, 0);
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        if (!failed) {
            EXPECT_NE(made, nullptr);
            break;
        }
        failures++;
        if (made == nullptr) {
            EXPECT_NE(gettperrno(), 0);
        }
    }
    EXPECT_GT(failures, 3);
    EXPECT_GE(session->consumer_count, 1);
    EXPECT_EQ(call(TPNOTRAN), 1);
    peer.done();
    expect_idle();
}
