/*
 * Loading the configuration file and choosing the running board's entry.
 *
 * Concurrency: parameter queries call Creat() from any client thread, and the
 * debug helper calls it once at start. Every call reads the file again and
 * appends its boards, and matching walks the whole list, so the list is
 * guarded by one mutex rather than replaced by a per-path cache: a cache
 * would change what a caller sees (a file edited between two queries would
 * not be read again). The file is read and parsed without the lock; one
 * load's boards are appended under it in one step, so they stay together and
 * in file order, and matching walks the list and copies its result under it.
 */
#include <marlo/base/logger.h>
#include <marlo/config/config.h>
#include <marlo_platform/system_path.h>
#include <tinyxml2.h>

#include <fstream>

#include "config/board_configs_access.h"

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_config";
constexpr char kOverrideConfigPath[] = "/vendor/etc/marlo_config_override.xml";
constexpr char kDefaultConfigPath[] = "/vendor/etc/marlo_config.xml";
constexpr char kModelPath[] = "/proc/device-tree/model";
constexpr char kDefaultModel[] = "Tessaro TS9100 VEHICLE EVB V22 Board";

/* Loads \a path into \a doc; a null path fails like a missing file. */
bool LoadDocument(XMLDocument* doc, const char* path) {
    if (path == nullptr)
        return false;
    return doc->LoadFile(path) == tinyxml2::XML_SUCCESS;
}

/* -1, 0 or 1, as the ordinary string comparison's sign. */
int Sign(int value) {
    return (value > 0) - (value < 0);
}

/*
 * Compares the first \a n characters of model and name; a name shorter than
 * that never matches. \a n is npos for an empty model: then the whole texts
 * are compared, so only an unnamed board matches it.
 */
int CompareModel(const std::string& model, const std::string& name, size_t n) {
    if (n == std::string::npos)
        return Sign(model.compare(name));
    if (name.size() < n)
        return Sign(model.compare(0, n, name));
    return Sign(model.compare(0, n, name, 0, n));
}

}  // namespace

std::mutex GlobalCameraConfig::board_configs_mutex_;
std::vector<GlobalCameraConfig::BoardConfig> GlobalCameraConfig::board_configs_;

void GlobalCameraConfig::loadFromConfig(const char* path) {
    XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
    if (!LoadDocument(&doc, path)) {
        marlo_log(MARLO_LOG_WARN, kTag,
                  "%s: Unable to load override config file, change to load default config file",
                  "loadFromConfig");
        std::string defaultPath = platform::SystemPath(kDefaultConfigPath);
        doc.Clear();
        if (!LoadDocument(&doc, defaultPath.c_str())) {
            /* Named as on the board, wherever this platform keeps the file. */
            marlo_log(MARLO_LOG_ERROR, kTag, "%s: Unable to load marlo config file '%s'. Error: %s",
                      "loadFromConfig", kDefaultConfigPath,
                      XMLDocument::ErrorIDToName(doc.ErrorID()));
            return;
        }
        marlo_log(MARLO_LOG_INFO, kTag, "%s: load marlo config succeed!", "loadFromConfig");
    }

    const XMLElement* root = doc.FirstChildElement("CameraConfig");
    if (root == nullptr) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: no automotive camera config specified",
                  "loadFromConfig");
        return;
    }

    std::vector<BoardConfig> boards;
    for (const XMLElement* board = root->FirstChildElement("board"); board != nullptr;
         board = board->NextSiblingElement("board"))
        boards.push_back(parseBoardConfig(board));

    std::lock_guard<std::mutex> lock(board_configs_mutex_);
    for (BoardConfig& board : boards)
        board_configs_.push_back(std::move(board));
}

GlobalCameraConfig::BoardConfig GlobalCameraConfig::getMatchConfig(const std::string& model) {
    /* The model file's line keeps its trailing zero byte; leave it out. */
    size_t n = model.empty() ? std::string::npos : model.size() - 1;
    if (model.empty())
        marlo_log(MARLO_LOG_WARN, kTag, "%s: empty model, only a board without a name matches",
                  "getMatchConfig");

    std::lock_guard<std::mutex> lock(board_configs_mutex_);
    for (const BoardConfig& board : board_configs_) {
        int ret = CompareModel(model, board.name, n);
        marlo_log(MARLO_LOG_INFO, kTag, "Matching config : %s ret %d", board.name.c_str(), ret);
        if (ret == 0) {
            marlo_log(MARLO_LOG_INFO, kTag, "%s: found matched board: %s!", "getMatchConfig",
                      model.c_str());
            return board;
        }
    }
    if (board_configs_.empty())
        return BoardConfig();
    marlo_log(MARLO_LOG_INFO, kTag, "%s: config not found, using default : %s!", "getMatchConfig",
              board_configs_.front().name.c_str());
    return board_configs_.front();
}

GlobalCameraConfig::BoardConfig GlobalCameraConfig::Creat() {
    loadFromConfig(platform::SystemPath(kOverrideConfigPath).c_str());

    std::string model;
    std::ifstream modelFile(platform::SystemPath(kModelPath));
    if (modelFile.is_open())
        std::getline(modelFile, model);
    marlo_log(MARLO_LOG_INFO, kTag, "Running on board : %s", model.c_str());
    if (model.empty())
        model = kDefaultModel;

    BoardConfig config = getMatchConfig(model);
    marlo_log(MARLO_LOG_INFO, kTag, "match %s config\n", model.c_str());
    return config;
}

std::vector<GlobalCameraConfig::BoardConfig> GlobalCameraConfig::boardConfigs() {
    std::lock_guard<std::mutex> lock(board_configs_mutex_);
    return board_configs_;
}

void detail::BoardConfigsAccess::Clear() {
    std::lock_guard<std::mutex> lock(GlobalCameraConfig::board_configs_mutex_);
    GlobalCameraConfig::board_configs_.clear();
}

}  // namespace tessaro::marlo
