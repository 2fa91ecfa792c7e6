// The lines of the sleeps that take plain numbers.
#include "calls/fixture.h"
#include "trace/hook.h"
#include "vorn/query.h"

namespace {

struct SleepTraces : CallTest {
    // Phase and text of each line of the sleeps since the last look, in their order.
    static std::vector<std::string> lines()
    {
        std::vector<std::string> texts;
        for (const traced_line &line : take_traced())
            if (line.function.find("sleep") != std::string::npos)
                texts.push_back(std::to_string(line.phase) + " " + line.text.substr(0, line.text.find("(0x")));
        return texts;
    }
};

TEST_F(SleepTraces, StandAroundThoseOfTheSleepBeneath)
{
    ASSERT_TRUE(start());
    take_traced();
    EXPECT_EQ(tp_sleep(0), 0);
    EXPECT_EQ(lines(), (std::vector<std::string>{"1 tp_sleep(0)", "1 tpsleep", "2 tpsleep = 0", "2 tp_sleep = 0"}));
    EXPECT_EQ(tp_usleep(1), 0);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"1 tp_usleep(1)", "1 tpsleep", "2 tpsleep = 0", "2 tp_usleep = 0"}));
}

TEST_F(SleepTraces, TellTheErrorThatEndedThem)
{
    setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);  // one try
    peer.stop_listening();
    take_traced();
    EXPECT_EQ(tp_sleep(3), -1);
    std::string ending = " = -1 [" + std::to_string(get_tperrno()) + " : " + tpstrerror(get_tperrno()) + "]";
    EXPECT_EQ(lines(), (std::vector<std::string>{"1 tp_sleep(3)", "1 tpsleep", "4 tpsleep" + ending,
                                                 "4 tp_sleep" + ending}));
}

}
