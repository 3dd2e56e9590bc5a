/*
 * Camera configuration: the records read from the XML configuration file
 * (boards, their cameras, channels and streams, the client camera mapping and
 * calibration), the parser, and the choice of the running board's entry.
 */
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include <marlo/base/mutex.h>

/* The parser takes elements of the XML library; clients never need its header. */
namespace tinyxml2 {
class XMLElement;
}

namespace tessaro::marlo {

namespace detail {
struct BoardConfigsAccess;
struct LastReads;
}  // namespace detail

class GlobalCameraConfig {
  public:
    /* One stream of a channel. */
    struct StreamConfig {
        int id = 0;
        /* V4L2 fourcc: the attribute's first four bytes, first one lowest. */
        uint32_t format = 0;
        int width = 0;
        int height = 0;
        int buf_cnt = 0;
        /* Frames per second to ask the node for; 0 leaves the driver's own rate. */
        float fps = 0;
    };

    /* Calibration and placement of one camera. */
    struct CameraParam {
        std::string location;
        std::string lensFacing;
        float roll = 0;
        float pitch = 0;
        float yaw = 0;
        float fx = 0;
        float fy = 0;
        float cx = 0;
        float cy = 0;
        float hfov = 0;
        float vfov = 0;
        double k1 = 0;
        double k2 = 0;
        double p1 = 0;
        double p2 = 0;
        double k3 = 0;
    };

    /* One video device node of a camera. */
    struct ChannelConfig {
        int id = 0;
        std::string dev;
        std::string cameraModel;
        CameraParam cameraParam;
        std::vector<StreamConfig> streams;
    };

    /* One capture pipeline. */
    struct CameraConfig {
        int id = 0;
        std::string entity;
        std::string subDev;
        std::string mbusCode;
        std::vector<ChannelConfig> channels;
    };

    /*
     * Where a client camera id takes its frames: cameraId and channelId are
     * positions in BoardConfig::cameras and CameraConfig::channels, not ids.
     */
    struct InputSrc {
        int cameraId = -1;
        int channelId = -1;
        int streamId = -1;
    };

    /* One board of the file. */
    struct BoardConfig {
        std::string name;
        std::vector<CameraConfig> cameras;
        std::map<int, InputSrc> inputMap;
        std::map<int, CameraParam> cameraParams;
    };

    /*
     * Reads the configuration (override file first, then the default file)
     * and returns a copy of the entry of the board this process runs on.
     */
    static BoardConfig Creat();

    /*
     * Loads \a path, or the default file when \a path cannot be loaded, and
     * appends every board of it to the process-wide list, in file order.
     */
    static void loadFromConfig(const char* path);

    /*
     * The first board whose name starts with \a model less its last
     * character; the first board when none does; an empty record when no
     * board has been read.
     */
    static BoardConfig getMatchConfig(const std::string& model);

    /* Each returns the record the element describes; null gives the default record. */
    static StreamConfig parseStreamConfig(const tinyxml2::XMLElement* element);
    static CameraParam parseCameraParam(const tinyxml2::XMLElement* element);
    static ChannelConfig parseChannelConfig(const tinyxml2::XMLElement* element);
    static CameraConfig parseCameraConfig(const tinyxml2::XMLElement* element);
    static BoardConfig parseBoardConfig(const tinyxml2::XMLElement* element);

    /* Every board read so far in this process, in the order read (a copy). */
    static std::vector<BoardConfig> boardConfigs();

  private:
    friend struct detail::BoardConfigsAccess;
    friend struct detail::LastReads;

    /* Also guards the record of the files read (detail::LastReads). */
    static Mutex board_configs_mutex_;
    static std::vector<BoardConfig> board_configs_ MARLO_GUARDED_BY(board_configs_mutex_);

    std::string model_;
};

}  // namespace tessaro::marlo
