// Whole programs, as an application's developer builds them: against the build tree and against an installation.
#include <gtest/gtest.h>

#include <sstream>

#include "toolbox.h"

namespace fs = std::filesystem;

static const fs::path PROGRAMS = PROJECT_DIR "/tests/interface/programs";

// The first C block of the readme.
static std::string first_program()
{
    const std::string text = read_file(PROJECT_DIR "/README.md");
    const size_t begin = text.find("```c\n");
    const size_t end = begin == std::string::npos ? begin : text.find("```", begin + 5);
    return end == std::string::npos ? "" : text.substr(begin + 5, end - begin - 5);
}

// The functions that the library shows, from its dynamic symbol table.
static std::vector<std::string> exported_functions()
{
    std::vector<std::string> names;
    for (const std::string &line : lines_of(run(setting("CMAKE_READELF") + " --wide --dyn-syms " VORNTHR_FILE).output)) {
        std::istringstream words(line);
        std::string number, value, size, kind, binding, visibility, section, name;
        words >> number >> value >> size >> kind >> binding >> visibility >> section >> name;
        if (kind == "FUNC" && section != "UND") {
            names.push_back(name.substr(0, name.find('@')));
        }
    }
    return names;
}

struct Words : testing::Test {
    temp_dir dir;
    fs::path program = dir.path / "words";

    void SetUp() override
    {
        const outcome compiled = compile_program(build_tree(), PROGRAMS / "words.c", program);
        ASSERT_EQ(compiled.status, 0) << compiled.output;
    }
    outcome with(const std::string &argument, const std::string &environment = "")
    {
        return run_program(build_tree(), program.string() + " " + argument, environment);
    }
};

TEST_F(Words, UntouchedLetALineThrough)
{
    const outcome result = with("");
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find(":(E) CLI 0209 a line [COM0001]"), std::string::npos) << result.output;
}

TEST_F(Words, DaemonWrittenByTheApplicationSilencesTheLibrary)
{
    const outcome result = with("daemon");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
}

TEST_F(Words, TlogWrittenByTheApplicationKeepsLinesOffTheConsole)
{
    const outcome result = with("tlog");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
}

TEST_F(Words, InitPhaseWrittenByTheApplicationOverridesTheSwitch)
{
    EXPECT_EQ(with("", "VORN_ERR_MSG=no").output, "");
    EXPECT_NE(with("phase", "VORN_ERR_MSG=no").output.find("a line"), std::string::npos);
}

TEST(OwnNames, AreNeverCalledByTheLibraryButForTheTraceHook)
{
    temp_dir dir;
    std::string header;
    for (const std::string &name : exported_functions()) {
        if (name != "_vorn_trace") {
            header += "OWN_FUNCTION(" + name + ")\n";
        }
    }
    ASSERT_NE(header.find("OWN_FUNCTION(_send_csmsg_to_clh)"), std::string::npos);
    ASSERT_NE(header.find("OWN_FUNCTION(_vorn_readn)"), std::string::npos);
    ASSERT_NE(header.find("OWN_FUNCTION(tpalloc)"), std::string::npos);
    write_file(dir.path / "own_names.h", header);

    const fs::path program = dir.path / "own_names";
    // With a function of its own for each name the program needs none of the library's, to the linker's eye.
    const outcome compiled = compile_program(build_tree(), PROGRAMS / "own_names.c", program,
                                             "-D_GNU_SOURCE -rdynamic -Wl,--no-as-needed -I" + dir.path.string());
    ASSERT_EQ(compiled.status, 0) << compiled.output;

    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_program(build_tree(), program, "VORN_HOST_ADDR=" + clh.address);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "reply ONE\nreply TWO\nown functions called: 0\ntraced: yes\n");
}

TEST(FirstProgram, FitsOnOneScreen)
{
    const size_t lines = lines_of(first_program()).size();
    EXPECT_GT(lines, 10u);
    EXPECT_LE(lines, 40u);
}

TEST(FirstProgram, RunsAgainstTheBuildTree)
{
    temp_dir dir;
    const fs::path source = dir.path / "first.c", program = dir.path / "first";
    write_file(source, first_program());
    const outcome compiled = compile_program(build_tree(), source, program, "-pedantic");
    ASSERT_EQ(compiled.status, 0) << compiled.output;

    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_program(build_tree(), program, "VORN_HOST_ADDR=" + clh.address);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("HELLO, WORLD"), std::string::npos) << result.output;
}

TEST(FirstProgram, TellsWhatIsWrongWithoutAServer)
{
    temp_dir dir;
    const fs::path source = dir.path / "first.c", program = dir.path / "first";
    write_file(source, first_program());
    ASSERT_EQ(compile_program(build_tree(), source, program).status, 0);

    // Nobody listens on port 1.
    const outcome result = run_program(build_tree(), program, "VORN_HOST_ADDR=127.0.0.1:1 VORN_CONNECT_TIMEOUT=0.2");
    EXPECT_NE(result.status, 0);
    EXPECT_LT(result.status, 128) << "ended by a signal";
    EXPECT_NE(result.output.find("tpstart"), std::string::npos) << result.output;
}

TEST(FirstProgram, RunsAgainstAnInstallation)
{
    temp_dir dir;
    const fs::path prefix = dir.path / "prefix";
    const outcome installed = run(setting("CMAKE_COMMAND") + " --install " + BUILD_DIR + " --prefix " + prefix.string());
    ASSERT_EQ(installed.status, 0) << installed.output;
    const place there = {prefix / "include", prefix / setting("CMAKE_INSTALL_LIBDIR")};
    EXPECT_EQ(fs::read_symlink(fs::path(there.library_dir) / "libvornthr"), "libvornthr.so");

    const fs::path source = dir.path / "first.c", program = dir.path / "first";
    write_file(source, first_program());
    const outcome compiled = compile_program(there, source, program);
    ASSERT_EQ(compiled.status, 0) << compiled.output;

    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_program(there, program, "VORN_HOST_ADDR=" + clh.address);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("HELLO, WORLD"), std::string::npos) << result.output;
}

// The order system of the examples, with the definitions that the build made for it.
static outcome run_orders(const std::string &environment, const std::string &program = "fields")
{
    return run_program(build_tree(), BUILD_DIR + "/bin/" + program, environment);
}

static std::string order_definitions()
{
    const std::string folder = BUILD_DIR + "/share";
    return "FDLFILE=" + folder + "/order.fdb SDLFILE64=" + folder + "/order.sdb ";
}

TEST(OrderProgram, PrintsOrdersAndTheirAnswers)
{
    const std::vector<std::string> order = {
        "  ORDER_NO 0: long",
        "  CUSTOMER 0: string",
        "  ITEM 0: string",
        "  PRICE 0: double",
        "  QUANTITY 0: int",
        "  ITEM 1: string",
        "  PRICE 1: double",
        "  QUANTITY 1: int",
        "order in fields",
    };
    const std::vector<std::string> taken = {
        "    fkey = 268435557, fname = ORDER_NO, type = long, value = 4711 ",
        "    fkey = 201326702, fname = LINES, type = int, value = 2 ",
        "    fkey = 402653295, fname = TOTAL, type = double, value = 13.750000 ",
        "    fkey = 469762160, fname = STATUS, type = string, value = accepted ",
        "2 lines, total 13.75, accepted",
    };
    const std::vector<std::string> refused = {
        "refused because of line 2",
        "    fkey = 268435557, fname = ORDER_NO, type = long, value = 4711 ",
        "    fkey = 201326702, fname = LINES, type = int, value = 0 ",
        "    fkey = 402653295, fname = TOTAL, type = double, value = 0.000000 ",
        "    fkey = 469762160, fname = STATUS, type = string, value = line 2: no quantity ",
        "0 lines, total 0.00, line 2: no quantity",
    };
    const std::vector<std::string> in_a_struct = {
        "order in a struct",
        "order 4712: total 13.75, accepted",
        "    fkey = 469762150, fname = CUSTOMER, type = string, value = Ann Example ",
        "    fkey = 268435557, fname = ORDER_NO, type = long, value = 4712 ",
        "    fkey = 201326702, fname = LINES, type = int, value = 2 ",
        "    fkey = 402653295, fname = TOTAL, type = double, value = 13.750000 ",
        "    fkey = 469762160, fname = STATUS, type = string, value = accepted ",
    };
    std::vector<std::string> expected;
    for (const auto &lines : {order, taken, order, refused, in_a_struct})
        expected.insert(expected.end(), lines.begin(), lines.end());

    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_orders(order_definitions() + "VORN_HOST_ADDR=" + clh.address);
    EXPECT_EQ(result.status, 0);
    const std::vector<std::string> lines = lines_of(result.output);
    for (size_t i = 0; i < lines.size() && i < expected.size(); i++)
        EXPECT_EQ(lines[i], expected[i]) << "line " << i + 1;
    EXPECT_EQ(lines.size(), expected.size()) << result.output;
}

TEST(TextProgram, TurnsTextIntoFieldsAndRecordsAndBack)
{
    const outcome result = run_orders(order_definitions(), "text");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "4711 | Ann Example\n"
                             "(end of the block)tea | 2.5 | 4\n"
                             "cups | 1.25 | 3\n"
                             "(end of the block)\n"
                             "3 times cups, article 200\n"
                             "tea | 2.500000 | 100 | 4\n"
                             "cups | 1.250000 | 200 | 6\n"
                             "(end of the block)");
}

static outcome run_example(const std::string &program, const server &clh)
{
    return run_program(build_tree(), BUILD_DIR + "/bin/" + program, "VORN_HOST_ADDR=" + clh.address);
}

TEST(ConversationProgram, ReadsAListAndTalks)
{
    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_example("conversation", clh);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "message 1\n"
                             "message 2\n"
                             "message 3\n"
                             "3 messages, the service said 3\n"
                             "good morning -> good morning\n"
                             "two teas, please -> two teas, please\n"
                             "end -> 2 turns\n"
                             "ended after 2 turns\n");
}

TEST(TransactionProgram, MovesMoneyWhollyOrNotAtAll)
{
    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_example("transaction", clh);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "  ann has 100\n"
                             "  bob has 0\n"
                             "ann gives bob 70\n"
                             "  committed\n"
                             "  ann has 30\n"
                             "  bob has 70\n"
                             "ann gives bob 50\n"
                             "  service failure(TPESVCFAIL): rolling back\n"
                             "  ann has 30\n"
                             "  bob has 70\n");
}

// The subscriber says on its first line who it is, and ends when the publisher has notified it.
TEST(EventPrograms, SubscriberGetsWhatThePublisherPosts)
{
    server clh;
    ASSERT_NE(clh.address, "");
    const std::string bin = BUILD_DIR + "/bin/";
    temp_dir dir;
    const std::string heard = (dir.path / "heard").string();
    const outcome result =
        run("export VORN_HOST_ADDR=" + clh.address + " LD_LIBRARY_PATH=" + LIBRARY_DIR + "\nmkfifo " + heard +
            "\n" + bin + "subscriber 'price.*' >" + heard + " &\nexec 3<" + heard +
            "\nread -r who rest <&3\n" + bin + "publisher $who\nwait $! && echo \"$who $rest\" && cat <&3");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "price.tea: 1 receivers\n"
                             "price.cups: 1 receivers\n"
                             "stock.tea: 0 receivers\n"
                             "1 has heard it\n"
                             "1 waits for price.*\n"
                             "notified: that was all\n"
                             "event: tea 2.50\n"
                             "event: cups 1.25\n");
}

TEST(OrderProgram, TellsThatItsDefinitionsAreMissing)
{
    server clh;
    ASSERT_NE(clh.address, "");
    const outcome result = run_orders("FDLFILE= SDLFILE64= VORN_HOST_ADDR=" + clh.address);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("no field has the name ORDER_NO"), std::string::npos) << result.output;
}
