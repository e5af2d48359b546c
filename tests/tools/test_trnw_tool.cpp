/*
 * The trnw tool's exit statuses: 0 done, 1 a file or library failure, 2 a
 * usage error (bad command, bad option or value, wrong argument count, an
 * output type that holds one page only).  Runs the tool named by TRNW_TOOL,
 * else the one built beside the suite; skipped without either.  Every input named here does not exist, so no case
 * reaches a decoder; the outputs lie in TRNW_TEST_TMP (or the current
 * directory).
 */
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#ifndef _WIN32
#include <sys/wait.h>
#endif

namespace {

int RunTool(const std::string &tool, const std::string &arguments)
{
#ifdef _WIN32
    const char *quiet = " >NUL 2>&1";
#else
    const char *quiet = " >/dev/null 2>&1";
#endif
    int status = std::system(("\"" + tool + "\" " + arguments + quiet).c_str());
#ifdef _WIN32
    return status;
#else
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
}

TEST(TrnwTool, ExitStatusOfEachKindOfCall)
{
    const char *tool = std::getenv("TRNW_TOOL");
#ifdef TRNW_TOOL_PATH
    if (!tool || !*tool)
        tool = TRNW_TOOL_PATH;
#endif
    if (!tool || !*tool)
        GTEST_SKIP() << "TRNW_TOOL names no built trnw";
    const char *tmp = std::getenv("TRNW_TEST_TMP");
    const std::string in = "trnw-tool-test-missing.tif";
    const std::string out = std::string(tmp && *tmp ? tmp : ".") + "/trnw-tool-test-out";

    struct Case {
        std::string arguments;
        int status;
    };
    const Case cases[] = {
        {"", 2},
        {"--help", 0},
        {"version", 0},
        {"frobnicate", 2},
        {"info", 2},
        {"info " + in, 1},
        {"convert " + in, 2},
        {"convert " + in + " " + out + ".bmp extra", 2},
        {"convert " + in + " " + out + ".bmp --bogus", 2},
        {"convert " + in + " " + out + ".bmp --rotate", 2}, /* value missing */
        {"convert " + in + " " + out + ".bmp --colors octree:17:4", 2}, /* 4 bits: 16 at most */
        {"convert " + in + " " + out + ".bmp --reduce-bits 3", 2},
        {"convert " + in + " " + out + ".bmp --crop 1,2,3", 2},
        /* well-formed options in any place: the missing input is the failure */
        {"convert --rotate 12.5 " + in + " --flip x " + out + ".bmp --gray --dither threshold:9", 1},
        {"convert " + in + " " + out + ".bmp --colors octree:16:4 --promote 24 --reduce-bits 4", 1},
        /* multi-page outputs: by type number or by extension, case ignored */
        {"convert " + in + " " + out + ".bmp --all-pages", 2},
        {"convert " + in + " " + out + ".tif --all-pages --type 1", 2},
        {"convert " + in + " " + out + ".TIF --all-pages", 1},
        {"convert " + in + " " + out + ".bmp --all-pages --type 10", 1},
        {"merge " + out + ".bmp " + in, 2},
        {"merge " + out + ".Dcx " + in, 1},
        {"merge " + out + ".tif " + out + ".tif", 2}, /* output also an input */
        {"split " + in + " " + out + " --type x", 2},
        {"split " + in + " " + out + " --type 10", 1},
        {"runs", 2},
    };
    for (const Case &c : cases)
        EXPECT_EQ(RunTool(tool, c.arguments), c.status) << "trnw " << c.arguments;
}

} // namespace
