/*
 * The configuration file as a client's queries read it: the input is the
 * override file (the example configuration stands as the default file, read
 * when the input does not load), the board model is the example board's.
 *
 * Each input: the board list is cleared, the configuration is read twice
 * (the second read finds the file unchanged and must answer the same), every
 * listed board is matched by its own name, and clients whose ids the board
 * maps ask for their location and lens facing. A wrong answer aborts like a
 * crash.
 */
#include <linux/videodev2.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "config/board_configs_access.h"
#include "fuzz_support.h"
#include "marlo/config/config.h"
#include "marlo/stream/v4l2_stream.h"

using tessaro::marlo::GlobalCameraConfig;
using tessaro::marlo::V4l2Stream;
using tessaro::marlo::detail::BoardConfigsAccess;

namespace {

constexpr char kOverridePath[] = "/vendor/etc/marlo_config_override.xml";
constexpr char kDefaultPath[] = "/vendor/etc/marlo_config.xml";
constexpr char kModel[] = "Tessaro TS9100 VEHICLE EVB V22 Board";
/* No capture node is ever opened: the streams only ask for parameters. */
constexpr char kDevice[] = "fuzz-config-camera";
constexpr size_t kMaxQueriedClients = 8;

marlo_fuzz::Sysroot* g_sysroot = nullptr;
/* Keeps the camera registered between inputs, so each query opens cheaply. */
V4l2Stream* g_anchor = nullptr;

void Check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "config_fuzzer: %s\n", what);
        abort();
    }
}

bool SameAnswer(const GlobalCameraConfig::BoardConfig& a,
                const GlobalCameraConfig::BoardConfig& b) {
    return a.name == b.name && a.cameras.size() == b.cameras.size() &&
           a.inputMap.size() == b.inputMap.size() && a.cameraParams.size() == b.cameraParams.size();
}

void QueryClient(int clientId) {
    V4l2Stream stream;
    if (stream.OpenCamera(clientId, kDevice, 64, 48, V4L2_PIX_FMT_NV12) != 0)
        return;
    for (marlo_param_t id : {MARLO_PARAM_LOCATION, MARLO_PARAM_LENS_FACING}) {
        marlo_param_value_t value = {};
        int result = stream.ClientGetParams(id, &value);
        Check(result == 0 || result == -2, "parameter query answered an unknown code");
    }
    stream.CloseCamera();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    marlo_fuzz::QuietLog();
    g_sysroot = new marlo_fuzz::Sysroot();
    std::ifstream example(MARLO_EXAMPLE_CONFIG, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(example)),
                        std::istreambuf_iterator<char>());
    g_sysroot->write(kDefaultPath, content.data(), content.size());
    std::string model = std::string(kModel) + '\0';
    g_sysroot->write("/proc/device-tree/model", model.data(), model.size());
    g_anchor = new V4l2Stream();
    Check(g_anchor->OpenCamera(-1, kDevice, 64, 48, V4L2_PIX_FMT_NV12) == 0, "anchor open");
    atexit([] {
        delete g_anchor;
        delete g_sysroot;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_sysroot->write(kOverridePath, data, size);
    BoardConfigsAccess::Clear();

    GlobalCameraConfig::BoardConfig first = GlobalCameraConfig::Creat();
    std::vector<GlobalCameraConfig::BoardConfig> listed = GlobalCameraConfig::boardConfigs();
    GlobalCameraConfig::BoardConfig again = GlobalCameraConfig::Creat();
    Check(SameAnswer(first, again), "an unchanged file answered differently");
    Check(GlobalCameraConfig::boardConfigs().size() == listed.size(),
          "an unchanged file grew the board list");

    for (const GlobalCameraConfig::BoardConfig& board : listed) {
        GlobalCameraConfig::BoardConfig match =
            GlobalCameraConfig::getMatchConfig(board.name + '\0');
        Check(match.name.compare(0, board.name.size(), board.name) == 0,
              "a board's own name matched a board without it");
    }

    std::set<int> clients;
    for (const auto& entry : first.inputMap)
        clients.insert(entry.first);
    for (const auto& entry : first.cameraParams)
        clients.insert(entry.first);
    size_t queried = 0;
    for (int client : clients) {
        if (queried++ == kMaxQueriedClients)
            break;
        QueryClient(client);
    }
    return 0;
}
