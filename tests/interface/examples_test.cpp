// The examples of queues, groups, enciphered sessions, failover, the key store and the message service, run as a
// user would run them.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "toolbox.h"

static std::string command_line(const std::string &program, const std::string &environment)
{
    return "LD_LIBRARY_PATH=" + LIBRARY_DIR + " " + environment + " " + BUILD_DIR + "/bin/" + program;
}

static std::string example(const std::string &program, const server &clh, const std::string &environment = "")
{
    const outcome result = run(command_line(program, "VORN_HOST_ADDR=" + clh.address + " " + environment));
    EXPECT_EQ(result.status, 0) << program << "\n" << result.output;
    return result.output;
}

static void expect_text(const std::string &output, const std::string &text)
{
    EXPECT_NE(output.find(text), std::string::npos) << "no \"" << text << "\" in\n" << output;
}

TEST(QueuePrograms, MessagesOutliveTheServer)
{
    temp_dir dir;
    const std::vector<std::string> options = {"--queues", "ORDERS", "--queue-file",
                                              (dir.path / "queues").string()};
    {
        server clh(options);
        ASSERT_NE(clh.address, "");
        expect_text(example("producer ORDERS 'two teas' 'a cup'", clh), "2 wait in ORDERS");
    }
    server clh(options);
    ASSERT_NE(clh.address, "");
    const std::string taken = example("consumer ORDERS", clh);
    expect_text(taken, "taken: two teas\ntaken: a cup\n");
}

TEST(MulticastProgram, CallsEachGroup)
{
    server clh({"--group", "WHICH=1,2,65537"});
    ASSERT_NE(clh.address, "");
    EXPECT_EQ(example("multicast WHICH hello", clh), "node 0 group 1: done, code 0\n"
                                                     "node 0 group 2: done, code 0\n"
                                                     "node 1 group 1: done, code 0\n"
                                                     "3 groups called, 0 of them failed\n");
}

TEST(EncipherProgram, TalksToTheServerOfItsKeyAlone)
{
    temp_dir dir;
    const std::string own = (dir.path / "own").string(), other = (dir.path / "other").string();
    for (const std::string &key : {own, other})
        ASSERT_EQ(run(CLHSIM_PATH + " --keygen " + key).status, 0);
    setenv("KEXCLI_OWN_KEY", own.c_str(), 1);
    server clh({"--encipher"});
    unsetenv("KEXCLI_OWN_KEY");
    ASSERT_NE(clh.address, "");
    const std::string enciphered = "VORN_SEMANTICS=CRYPT_SW=Y KEXCLI_PEER_KEY=";
    EXPECT_EQ(example("encipher hello", clh, enciphered + own + ".pub"),
              "the session is enciphered\nHELLO\n");
    const outcome refused = run(
        command_line("encipher hello", "VORN_HOST_ADDR=" + clh.address + " " + enciphered + other + ".pub"));
    EXPECT_NE(refused.status, 0);
    expect_text(refused.output, "tpstart failed");
}

TEST(KeyStoreProgram, OneClientStoresAndAnotherReads)
{
    server clh({"--nodes", "NODE1,NODE2"});
    ASSERT_NE(clh.address, "");
    example("keystore put price.tea 3 price.cup 12", clh);
    const std::string both = example("keystore show price.", clh);
    expect_text(both, "price.tea = 3\n");
    expect_text(both, "price.cup = 12\n");
    expect_text(example("keystore purge price.tea", clh), "1 removed");
    EXPECT_EQ(example("keystore show price.", clh).find("price.tea"), std::string::npos);
}

static bool tell(const std::string &control, const std::string &command)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", control.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const std::string line = command + "\n";
    char answer[64];
    bool told = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
                read(fd, answer, sizeof answer) > 0;
    close(fd);
    return told;
}

// The first server goes down in the midst of the calls. It is slow, so that there are many left whenever that is.
TEST(RollingProgram, LosesNothing)
{
    temp_dir dir;
    const std::string counts = (dir.path / "counts").string(), control = (dir.path / "ctl").string();
    server first({"--count-file", counts, "--control", control});
    server second({"--count-file", counts});
    ASSERT_NE(first.address, "");
    ASSERT_NE(second.address, "");
    ASSERT_TRUE(tell(control, "delay COUNT 20"));
    const std::string environment = "VORN_HOST_ADDR=" + first.address + " VORN_BACKUP_ADDR=" + second.address;
    FILE *client = popen((command_line("rolling 10000 4", environment) + " 2>&1").c_str(), "r");
    ASSERT_NE(client, nullptr);
    std::string output;
    char line[256];
    bool down = false;
    while (fgets(line, sizeof line, client) != nullptr) {
        output += line;
        if (!down && strncmp(line, "call ", 5) == 0) {
            down = tell(control, "godown");
        }
    }
    EXPECT_EQ(pclose(client), 0);
    EXPECT_TRUE(down);
    expect_text(output, "the session has moved to the other server");
    expect_text(output, "10000 calls, 10000 answered, 0 lost");
}

TEST(MessagePrograms, MessagesAndSubscriptionsOutliveTheServer)
{
    temp_dir dir;
    const std::vector<std::string> options = {"--store-file", (dir.path / "messages").string()};
    {
        server clh(options);
        ASSERT_NE(clh.address, "");
        example("kmq_topic subscribe ann", clh);
        example("kmq_topic publish tea=3 cup=12", clh);
        example("kmq_queue send 'two teas' 'a cup'", clh);
        expect_text(example("kmq_browse ORDERS", clh), "two teas");
        example("kmq_transacted rollback", clh);
    }
    server clh(options);
    ASSERT_NE(clh.address, "");
    const std::string received = example("kmq_queue receive", clh);
    expect_text(received, "two teas");
    expect_text(received, "a cup");
    const std::string heard = example("kmq_topic subscribe ann", clh);
    expect_text(heard, "tea costs 3");
    expect_text(heard, "cup costs 12");
    example("kmq_topic unsubscribe ann", clh);
}
