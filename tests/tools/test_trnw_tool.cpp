/*
 * The trnw tool's exit statuses: 0 done, 1 a file or library failure, 2 a
 * usage error (bad command, bad option or value, wrong argument count, an
 * output type that holds one page only).  Runs the tool named by TRNW_TOOL,
 * else the one built beside the suite; skipped without either.  The inputs
 * of the status table do not exist, so none of its cases reaches a decoder;
 * the batch case converts real files.  Outputs lie in TRNW_TEST_TMP (or the
 * current directory).
 */
#include "support/support.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#ifndef _WIN32
#include <sys/wait.h>
#endif

namespace {

// The tool's exit status; its standard error goes to `errors` when named.
int RunTool(const std::string &tool, const std::string &arguments, const std::string &errors = "")
{
#ifdef _WIN32
    std::string quiet = " >NUL 2>" + (errors.empty() ? std::string("&1") : errors);
#else
    std::string quiet = " >/dev/null 2>" + (errors.empty() ? std::string("&1") : errors);
#endif
    int status = std::system(("\"" + tool + "\" " + arguments + quiet).c_str());
#ifdef _WIN32
    return status;
#else
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
}

std::string Tool()
{
    const char *tool = std::getenv("TRNW_TOOL");
#ifdef TRNW_TOOL_PATH
    if (!tool || !*tool)
        tool = TRNW_TOOL_PATH;
#endif
    return tool ? tool : "";
}

TEST(TrnwTool, ExitStatusOfEachKindOfCall)
{
    const std::string tool = Tool();
    if (tool.empty())
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
        {"convert " + in + " " + out + ".jpeg --quality 101", 2},
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
        {"view " + in + " " + out + ".bmp --angle 45", 2},
        {"view " + in + " " + out + ".bmp --size 0x5", 2},
        {"view " + in + " " + out + ".bmp --zoom 50 --alias 2 --dither-device", 1},
        {"batch " + in + " " + in + " " + out, 2}, /* both would be written to one output */
    };
    for (const Case &c : cases)
        EXPECT_EQ(RunTool(tool, c.arguments), c.status) << "trnw " << c.arguments;
}

// A folder with a corrupt file among good ones, on two workers: the corrupt
// file is reported by name, the others converted to the type's extension.
TEST(TrnwTool, BatchConvertsTheOthersAroundACorruptFile)
{
    const std::string tool = Tool();
    if (tool.empty())
        GTEST_SKIP() << "TRNW_TOOL names no built trnw";
    const std::string in = TempPath("batch-in"), out = TempPath("batch-out"), log = TempPath("batch.log");
    std::filesystem::remove_all(out);
    std::filesystem::create_directories(in);
    const Picture picture = MakePicture(37, 21, 8, 5);
    ASSERT_TRUE(WriteFile(in + "/a.bmp", Saved(picture, IMG_TYPE_BMP)));
    ASSERT_TRUE(WriteFile(in + "/b.tif", Saved(picture, IMG_TYPE_TIFF_LZW)));
    ASSERT_TRUE(WriteFile(in + "/c.tif", {'I', 'I', 42, 0, 0xFF, 0xFF, 0xFF, 0x7F})); // IFD past the end

    EXPECT_EQ(RunTool(tool, "batch -j 2 " + in + " " + out + " --type 2", log), 1);
    for (const char *name : {"/a.pcx", "/b.pcx"})
        EXPECT_EQ(RasterDiff(DecodeFile(out + name), picture.Rgb()), 0) << name;
    EXPECT_FALSE(std::filesystem::exists(out + "/c.pcx"));
    const std::vector<uint8_t> errors = ReadFile(log);
    EXPECT_NE(std::string(errors.begin(), errors.end()).find("c.tif"), std::string::npos);
    std::filesystem::remove_all(in);
    std::filesystem::remove_all(out);
}

// A picture converted to .png and back is the same; info names the PNG's coding.
TEST(TrnwTool, ConvertsThroughPngAndDescribesIt)
{
    const std::string tool = Tool();
    if (tool.empty())
        GTEST_SKIP() << "TRNW_TOOL names no built trnw";
    const std::string bmp = TempPath("tool.bmp"), png = TempPath("tool.png"), back = TempPath("back.bmp");
    const Picture picture = MakePicture(23, 9, 4, 2);
    ASSERT_TRUE(WriteFile(bmp, Saved(picture, IMG_TYPE_BMP)));
    EXPECT_EQ(RunTool(tool, "convert " + bmp + " " + png), 0);
    EXPECT_EQ(RunTool(tool, "convert " + png + " " + back), 0);
    EXPECT_EQ(RasterDiff(DecodeFile(back), picture.Rgb()), 0);
    ASSERT_EQ(std::system(("\"" + tool + "\" info " + png + " > " + bmp).c_str()), 0);
    const std::vector<uint8_t> info = ReadFile(bmp);
    EXPECT_NE(std::string(info.begin(), info.end()).find("PNG: colour type 3 (palette), 4 bits a sample, not interlaced"),
              std::string::npos);
    for (const std::string &file : {bmp, png, back})
        std::remove(file.c_str());
}

} // namespace
