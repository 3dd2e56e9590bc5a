/*
 * Loading the configuration file and choosing the running board's entry.
 *
 * Parameter queries call Creat() from any client thread, and the debug
 * helper calls it once at start. Every call reads the file again, so an
 * edited file is seen at the next query; what a caller gets is the first
 * board read so far in this process that matches (else the first board
 * read), as if every read appended its boards to one list. That list is
 * kept bounded without changing the answer: a board equal to one already
 * listed would never be found before it, so it is not appended again, and
 * a file whose bytes are those it had at its last read is not parsed again
 * (its boards are all listed; its per-entry parse lines are not repeated).
 * The file is read and parsed without the lock; one load's new boards are
 * appended under it in one step, and matching walks the list and copies
 * its result under it.
 */
#include <marlo/base/logger.h>
#include <marlo/base/mutex.h>
#include <marlo/config/config.h>
#include <marlo_platform/system_path.h>
#include <tinyxml2.h>

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <map>

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

using BoardConfig = GlobalCameraConfig::BoardConfig;

/*
 * Record equality. Numbers compare by their bits, so a NaN read from the
 * file equals itself and the board holding it is listed once.
 */
bool Same(float a, float b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

bool Same(double a, double b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

bool Same(const GlobalCameraConfig::CameraParam& a, const GlobalCameraConfig::CameraParam& b) {
    return a.location == b.location && a.lensFacing == b.lensFacing && Same(a.roll, b.roll) &&
           Same(a.pitch, b.pitch) && Same(a.yaw, b.yaw) && Same(a.fx, b.fx) && Same(a.fy, b.fy) &&
           Same(a.cx, b.cx) && Same(a.cy, b.cy) && Same(a.hfov, b.hfov) && Same(a.vfov, b.vfov) &&
           Same(a.k1, b.k1) && Same(a.k2, b.k2) && Same(a.p1, b.p1) && Same(a.p2, b.p2) &&
           Same(a.k3, b.k3);
}

bool Same(const GlobalCameraConfig::StreamConfig& a, const GlobalCameraConfig::StreamConfig& b) {
    return a.id == b.id && a.format == b.format && a.width == b.width && a.height == b.height &&
           a.buf_cnt == b.buf_cnt;
}

bool Same(const GlobalCameraConfig::InputSrc& a, const GlobalCameraConfig::InputSrc& b) {
    return a.cameraId == b.cameraId && a.channelId == b.channelId && a.streamId == b.streamId;
}

template <typename List, typename Equal>
bool SameLists(const List& a, const List& b, Equal equal) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), equal);
}

bool Same(const GlobalCameraConfig::ChannelConfig& a, const GlobalCameraConfig::ChannelConfig& b) {
    return a.id == b.id && a.dev == b.dev && a.cameraModel == b.cameraModel &&
           Same(a.cameraParam, b.cameraParam) &&
           SameLists(a.streams, b.streams, [](const auto& x, const auto& y) { return Same(x, y); });
}

bool Same(const GlobalCameraConfig::CameraConfig& a, const GlobalCameraConfig::CameraConfig& b) {
    return a.id == b.id && a.entity == b.entity && a.subDev == b.subDev &&
           a.mbusCode == b.mbusCode &&
           SameLists(a.channels, b.channels,
                     [](const auto& x, const auto& y) { return Same(x, y); });
}

bool Same(const BoardConfig& a, const BoardConfig& b) {
    auto sameEntry = [](const auto& x, const auto& y) {
        return x.first == y.first && Same(x.second, y.second);
    };
    return a.name == b.name &&
           SameLists(a.cameras, b.cameras,
                     [](const auto& x, const auto& y) { return Same(x, y); }) &&
           SameLists(a.inputMap, b.inputMap, sameEntry) &&
           SameLists(a.cameraParams, b.cameraParams, sameEntry);
}

/* Whether a board equal to \a board is in \a list already. */
bool Listed(const std::vector<BoardConfig>& list, const BoardConfig& board) {
    return std::any_of(list.begin(), list.end(),
                       [&board](const BoardConfig& listed) { return Same(listed, board); });
}

/*
 * Reads the whole file at \a path into \a content. On failure \a error has
 * the XML library's code for it, as its own file loading would say.
 */
bool ReadFile(const char* path, std::string* content, tinyxml2::XMLError* error) {
    FILE* file = fopen(path, "rb");
    if (file == nullptr) {
        *error = tinyxml2::XML_ERROR_FILE_NOT_FOUND;
        return false;
    }
    content->clear();
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
        content->append(chunk, got);
    bool ok = ferror(file) == 0;
    fclose(file);
    if (!ok)
        *error = tinyxml2::XML_ERROR_FILE_READ_ERROR;
    return ok;
}

}  // namespace

/* The bytes of each file at its last read that was parsed. */
struct detail::LastReads {
    static bool Unchanged(const std::string& path, const std::string& content)
        MARLO_EXCLUDES(GlobalCameraConfig::board_configs_mutex_) {
        MutexLocker lock(GlobalCameraConfig::board_configs_mutex_);
        auto last = files.find(path);
        return last != files.end() && last->second == content;
    }

    static std::map<std::string, std::string> files
        MARLO_GUARDED_BY(GlobalCameraConfig::board_configs_mutex_);
};

std::map<std::string, std::string> detail::LastReads::files;

namespace {

enum class Load {
    kFailed,
    kUnchanged, /* the bytes of the last parsed read of this path: every board is listed */
    kParsed,
};

/*
 * Reads \a path and, unless its bytes are those of its last parsed read,
 * parses them into \a doc. A null path fails like a missing file; a failure
 * leaves the XML library's code for it in \a error.
 */
Load LoadDocument(XMLDocument* doc, const char* path, std::string* content,
                  tinyxml2::XMLError* error) {
    if (path == nullptr) {
        *error = tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED;
        return Load::kFailed;
    }
    if (!ReadFile(path, content, error))
        return Load::kFailed;
    if (detail::LastReads::Unchanged(path, *content))
        return Load::kUnchanged;
    *error = doc->Parse(content->data(), content->size());
    return *error == tinyxml2::XML_SUCCESS ? Load::kParsed : Load::kFailed;
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

Mutex GlobalCameraConfig::board_configs_mutex_;
std::vector<GlobalCameraConfig::BoardConfig> GlobalCameraConfig::board_configs_;

void GlobalCameraConfig::loadFromConfig(const char* path) {
    XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
    std::string loadedPath = path != nullptr ? path : "";
    std::string content;
    tinyxml2::XMLError error = tinyxml2::XML_SUCCESS;
    Load load = LoadDocument(&doc, path, &content, &error);
    if (load == Load::kFailed) {
        marlo_log(MARLO_LOG_WARN, kTag,
                  "%s: Unable to load override config file, change to load default config file",
                  "loadFromConfig");
        loadedPath = platform::SystemPath(kDefaultConfigPath);
        doc.Clear();
        load = LoadDocument(&doc, loadedPath.c_str(), &content, &error);
        if (load == Load::kFailed) {
            /* Named as on the board, wherever this platform keeps the file. */
            marlo_log(MARLO_LOG_ERROR, kTag, "%s: Unable to load marlo config file '%s'. Error: %s",
                      "loadFromConfig", kDefaultConfigPath, XMLDocument::ErrorIDToName(error));
            return;
        }
        marlo_log(MARLO_LOG_INFO, kTag, "%s: load marlo config succeed!", "loadFromConfig");
    }
    if (load == Load::kUnchanged)
        return;

    std::vector<BoardConfig> boards;
    const XMLElement* root = doc.FirstChildElement("CameraConfig");
    if (root == nullptr) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: no automotive camera config specified",
                  "loadFromConfig");
    } else {
        for (const XMLElement* board = root->FirstChildElement("board"); board != nullptr;
             board = board->NextSiblingElement("board"))
            boards.push_back(parseBoardConfig(board));
    }

    MutexLocker lock(board_configs_mutex_);
    for (BoardConfig& board : boards) {
        if (!Listed(board_configs_, board))
            board_configs_.push_back(std::move(board));
    }
    detail::LastReads::files[loadedPath] = std::move(content);
}

GlobalCameraConfig::BoardConfig GlobalCameraConfig::getMatchConfig(const std::string& model) {
    /* The model file's line keeps its trailing zero byte; leave it out. */
    size_t n = model.empty() ? std::string::npos : model.size() - 1;
    if (model.empty())
        marlo_log(MARLO_LOG_WARN, kTag, "%s: empty model, only a board without a name matches",
                  "getMatchConfig");

    MutexLocker lock(board_configs_mutex_);
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
    MutexLocker lock(board_configs_mutex_);
    return board_configs_;
}

void detail::BoardConfigsAccess::Clear() {
    MutexLocker lock(GlobalCameraConfig::board_configs_mutex_);
    GlobalCameraConfig::board_configs_.clear();
    detail::LastReads::files.clear();
}

}  // namespace tessaro::marlo
