#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "rearview.h"

namespace {

int RunTool(std::vector<std::string> args, std::string* out, std::string* err) {
    args.insert(args.begin(), "marlo_rearview");
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    std::ostringstream o;
    std::ostringstream e;
    int status = marlo_demo::RunRearview(static_cast<int>(argv.size()), argv.data(), o, e);
    *out = o.str();
    *err = e.str();
    return status;
}

TEST(RearviewOptions, HelpListsTheOptions) {
    std::string out, err;
    EXPECT_EQ(RunTool({"--help"}, &out, &err), 0);
    EXPECT_NE(out.find("--mode WxH"), std::string::npos);
    EXPECT_NE(out.find("--ctrl NAME=VALUE"), std::string::npos);
    EXPECT_EQ(err, "");
}

TEST(RearviewOptions, BadValuesAreRefused) {
    std::string out, err;
    EXPECT_EQ(RunTool({"--sets", "1"}, &out, &err), 2);
    EXPECT_NE(err.find("bad value '1' for --sets"), std::string::npos) << err;
    EXPECT_EQ(RunTool({"--record-size", "321x240"}, &out, &err), 2);
    EXPECT_NE(err.find("bad value '321x240' for --record-size"), std::string::npos) << err;
    EXPECT_EQ(RunTool({"--ctrl", "Brightness"}, &out, &err), 2);
    EXPECT_EQ(RunTool({"--bogus", "1"}, &out, &err), 2);
    EXPECT_NE(err.find("unknown option --bogus"), std::string::npos) << err;
    EXPECT_EQ(RunTool({"--seconds"}, &out, &err), 2);
    EXPECT_NE(err.find("option --seconds needs a value"), std::string::npos) << err;
}

TEST(RearviewOptions, AMissingCameraIsNamed) {
    std::string out, err;
    EXPECT_EQ(RunTool({"--device", "/dev/video-none"}, &out, &err), 2);
    EXPECT_NE(err.find("cannot open /dev/video-none"), std::string::npos) << err;
    EXPECT_NE(err.find("modprobe vivid"), std::string::npos) << err;
}

}  // namespace
