// The checks of the source tree, run over small trees with one thing wrong: none of them may be unable to fail.
#include <gtest/gtest.h>

#include "toolbox.h"

namespace fs = std::filesystem;

struct Lint : testing::Test {
    temp_dir dir;

    void put(const std::string &name, const std::string &text)
    {
        fs::create_directories((dir.path / name).parent_path());
        write_file(dir.path / name, text);
    }

    // A tree in which all is well.
    void SetUp() override
    {
        put("tools/lint/lint.py", read_file(PROJECT_DIR "/tools/lint/lint.py"));
        put("tools/lint/upward.txt", "# none\n");
        put("abi/exports.list", "# names\nfirst\nsecond\n");
        std::string road, stops;
        for (int i = 0; i < 10; i++) {
            const std::string name = "stop" + std::to_string(i);
            road += "`wire/road: " + name + "` | thread\n";
            stops += "int " + name + "(int a,\n    const char *b)\n{\n    return a + *b;\n}\n";
        }
        put("docs/road-of-a-call.md", road);
        put("src/wire/road.cpp", "#include \"runtime/base.h\"\n" + stops);
        put("src/runtime/base.h", "// strcpy(a, b) is told of, not called: \"exit(1)\"\n");
    }

    outcome lint()
    {
        return run("python3 " + (dir.path / "tools/lint/lint.py").string());
    }

    void expect_complaint(const std::string &text)
    {
        const outcome result = lint();
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
    }
};

TEST_F(Lint, PassesATreeWithoutFaults)
{
    const outcome result = lint();
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Lint, FindsABannedCall)
{
    put("src/wire/bad.cpp", "void f(char *a, const char *b)\n{\n    strcpy(a, b);\n}\n");
    expect_complaint("src/wire/bad.cpp:3: strcpy");
}

TEST_F(Lint, LetsOnlyTheErrorLogEndTheProcess)
{
    put("src/runtime/errlog.cpp", "void f(void)\n{\n    exit(1);\n}\n");
    EXPECT_EQ(lint().status, 0);
    put("src/runtime/other.cpp", "void f(void)\n{\n    exit(1);\n}\n");
    expect_complaint("src/runtime/other.cpp:3: exit");
}

TEST_F(Lint, FindsALongFile)
{
    std::string text;
    for (int i = 0; i < 801; i++) {
        text += "int a" + std::to_string(i) + ";\n";
    }
    put("src/wire/long.cpp", text);
    expect_complaint("src/wire/long.cpp:1: 801 lines");
}

TEST_F(Lint, FindsALongFunction)
{
    std::string body;
    for (int i = 0; i < 78; i++) {
        body += "    g();\n";
    }
    put("src/wire/long.cpp", "void f(void)\n{\n" + body + "}\n");
    EXPECT_EQ(lint().status, 0);
    put("src/wire/long.cpp", "void f(void)\n{\n" + body + "    g();\n}\n");
    expect_complaint("src/wire/long.cpp:2: a function of 81 lines");
}

TEST_F(Lint, FindsAnUnreviewedIncludeUpward)
{
    put("src/runtime/up.cpp", "#include \"wire/road.h\"\n");
    expect_complaint("src/runtime/up.cpp:1: includes wire/road.h upward");
}

TEST_F(Lint, AReviewedIncludeMustStandInTheRoadToo)
{
    put("src/runtime/up.cpp", "#include \"wire/road.h\"\n");
    put("tools/lint/upward.txt", "runtime/up.cpp -> wire/road.h  # because\n");
    expect_complaint("doesn't tell of the calls upward through `wire/road.h`");
    put("docs/road-of-a-call.md", read_file(dir.path / "docs/road-of-a-call.md") + "`wire/road.h`\n");
    EXPECT_EQ(lint().status, 0) << lint().output;
}

TEST_F(Lint, FindsAReviewThatNobodyNeedsAnyMore)
{
    put("tools/lint/upward.txt", "runtime/up.cpp -> wire/road.h  # because\n");
    expect_complaint("tools/lint/upward.txt:1: runtime/up.cpp doesn't include wire/road.h any more");
}

TEST_F(Lint, FindsAStopThatHasMoved)
{
    put("docs/road-of-a-call.md", read_file(dir.path / "docs/road-of-a-call.md") + "`wire/road: gone`\n");
    expect_complaint("docs/road-of-a-call.md:11: gone isn't defined in src/wire/road.cpp");
}

TEST_F(Lint, ADeclarationOrACallIsNoStop)
{
    put("src/wire/road.cpp", read_file(dir.path / "src/wire/road.cpp") +
                                 "int gone(int);\nint last(void)\n{\n    if (gone(1)) {\n    }\n    return gone(2);\n}\n");
    put("docs/road-of-a-call.md", read_file(dir.path / "docs/road-of-a-call.md") + "`wire/road: gone`\n");
    expect_complaint("gone isn't defined");
}

TEST_F(Lint, FindsARoadWithTooFewStops)
{
    put("docs/road-of-a-call.md", "`wire/road: stop1`\n");
    expect_complaint("1 stops");
}

TEST_F(Lint, FindsATextThatSendsAReaderElsewhere)
{
    put("docs/other.md", "See Pa" "rt 1.2 of it.\n");
    expect_complaint("docs/other.md:1: sends a reader elsewhere");
}

TEST_F(Lint, FindsAnExportOutOfOrder)
{
    put("abi/exports.list", "second\nfirst\n");
    expect_complaint("first doesn't stand behind second");
}

TEST(Dev, TellsItsCommandsFromAnyFolder)
{
    const outcome result = run("cd / && " PROJECT_DIR "/dev help");
    EXPECT_EQ(result.status, 0);
    for (const char *command : {"demo", "test", "bench", "fuzz", "lint", "abi", "format"}) {
        EXPECT_NE(result.output.find(std::string("\n  ") + command), std::string::npos) << command;
    }
}

TEST(Dev, RefusesWhatItDoesNotKnow)
{
    EXPECT_EQ(run(PROJECT_DIR "/dev nonsense").status, 2);
    EXPECT_NE(run(PROJECT_DIR "/dev test nonsense").status, 0);
}
