#pragma once
// Runs the sliceio executable as a user would, from the tests.
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/TestSupport.h"

struct ToolRun
{
    int Code = -1;
    std::string Out, Err;
};

class ToolTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (std::string(SLICEIO_TOOL_PATH).empty())
            GTEST_SKIP() << "the sliceio tool is not built";
    }

    // Runs the tool through the shell with the arguments, each quoted; output goes to files
    // so that nothing can block.
    ToolRun Tool(const std::vector<std::string>& args, const std::string& prefix = "")
    {
        std::string command = prefix + "'" SLICEIO_TOOL_PATH "'";
        for (const std::string& a : args)
            command += " '" + a + "'";
        const std::string out = Path("stdout.txt"), err = Path("stderr.txt");
        const int status = std::system((command + " </dev/null >" + out + " 2>" + err).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ts::ReadFile(out), ts::ReadFile(err)};
    }
    // Runs the tool, expects it to succeed and gives what it printed.
    std::string Ok(const std::vector<std::string>& args)
    {
        const ToolRun run = Tool(args);
        EXPECT_EQ(run.Code, 0) << run.Err;
        return run.Out;
    }
    std::string Path(const std::string& name) const { return _dir.File(name); }
    std::string MakeSample(const std::string& name, int layers = 20)
    {
        Ok({"sample", Path(name), "--layers", std::to_string(layers)});
        return Path(name);
    }

    // A failure is reported as one line on stderr and nothing on stdout.
    static void ExpectFailure(const ToolRun& run, int code, const std::vector<std::string>& words)
    {
        EXPECT_EQ(run.Code, code) << run.Out << run.Err;
        EXPECT_TRUE(run.Out.empty()) << run.Out;
        EXPECT_EQ(std::count(run.Err.begin(), run.Err.end(), '\n'), 1) << run.Err;
        EXPECT_EQ(run.Err.rfind("sliceio: ", 0), 0u) << run.Err;
        for (const std::string& word : words)
            EXPECT_NE(run.Err.find(word), std::string::npos) << "'" << word << "' missing in: " << run.Err;
    }

    ts::ScratchDir _dir;
};

