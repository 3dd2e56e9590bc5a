/*
 * Parsing of the configuration file's elements into the records of
 * GlobalCameraConfig. Numbers come from the XML library's typed attribute
 * queries; an absent or unparsable attribute leaves the record's default.
 */
#include <marlo/base/logger.h>
#include <marlo/config/config.h>
#include <tinyxml2.h>

#include <cstring>

using tinyxml2::XMLElement;

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_config";

/*
 * Reads the attributes \a fields of \a parent's first child element \a name,
 * when there is one.
 */
template <typename Number>
void QueryChildAttributes(const XMLElement* parent, const char* name,
                          std::initializer_list<std::pair<const char*, Number*>> fields) {
    const XMLElement* child = parent->FirstChildElement(name);
    if (child == nullptr)
        return;
    for (const auto& [attribute, value] : fields)
        child->QueryAttribute(attribute, value);
}

/* Hands every child element \a name of \a parent to \a visit, in document order. */
template <typename Visit>
void ForEachChild(const XMLElement* parent, const char* name, Visit visit) {
    for (const XMLElement* child = parent->FirstChildElement(name); child != nullptr;
         child = child->NextSiblingElement(name))
        visit(child);
}

/*
 * Parses every child element \a name of \a parent with \a parse into
 * \a records, logging each record's id for \a operation.
 */
template <typename Record, typename Parse>
void ParseChildren(const XMLElement* parent, const char* name, const char* operation, Parse parse,
                   std::vector<Record>* records) {
    ForEachChild(parent, name, [&](const XMLElement* child) {
        Record record = parse(child);
        marlo_log(MARLO_LOG_INFO, kTag, "%s: parsed %s id:%d!", operation, name, record.id);
        records->push_back(std::move(record));
    });
}

void QueryString(const XMLElement* element, const char* name, std::string* value) {
    const char* text = element->Attribute(name);
    if (text != nullptr)
        *value = text;
}

/*
 * Text of the first child element \a name. A present element without text
 * is a broken file; it leaves the field empty and says so, rather than
 * taking the text of nothing.
 */
void ReadText(const char* operation, const XMLElement* parent, const char* name,
              std::string* value) {
    const XMLElement* child = parent->FirstChildElement(name);
    if (child == nullptr)
        return;
    const char* text = child->GetText();
    if (text == nullptr) {
        marlo_log(MARLO_LOG_WARN, kTag, "%s: <%s> has no text, left empty", operation, name);
        return;
    }
    *value = text;
}

/*
 * Format texts are four characters. A three-character text keeps its
 * terminating zero byte as the highest byte; shorter texts would reach past
 * the string, so the missing bytes are taken as zero.
 */
uint32_t FourccFromText(const char* text, int streamId) {
    size_t length = strlen(text);
    if (length < 3)
        marlo_log(MARLO_LOG_WARN, kTag,
                  "%s: format '%s' of stream %d is shorter than three characters, missing "
                  "bytes taken as zero",
                  "parseStreamConfig", text, streamId);
    uint32_t code = 0;
    for (size_t i = 0; i < 4 && i < length; ++i)
        code |= static_cast<uint32_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    return code;
}

}  // namespace

GlobalCameraConfig::StreamConfig GlobalCameraConfig::parseStreamConfig(const XMLElement* element) {
    StreamConfig stream;
    if (element == nullptr)
        return stream;
    element->QueryAttribute("id", &stream.id);
    const char* format = element->Attribute("format");
    if (format != nullptr)
        stream.format = FourccFromText(format, stream.id);
    element->QueryAttribute("width", &stream.width);
    element->QueryAttribute("height", &stream.height);
    element->QueryAttribute("buf_cnt", &stream.buf_cnt);
    /* Optional: the frame rate to ask the node for; 0 leaves the driver's own. */
    element->QueryAttribute("fps", &stream.fps);
    if (!(stream.fps > 0))
        stream.fps = 0;
    return stream;
}

GlobalCameraConfig::CameraParam GlobalCameraConfig::parseCameraParam(const XMLElement* element) {
    CameraParam param;
    if (element == nullptr)
        return param;

    /* Only the location may be left empty in a well-made file. */
    const XMLElement* location = element->FirstChildElement("location");
    if (location != nullptr && location->GetText() != nullptr)
        param.location = location->GetText();
    ReadText("parseCameraParam", element, "lensFacing", &param.lensFacing);

    QueryChildAttributes<float>(
        element, "orientation",
        {{"roll", &param.roll}, {"pitch", &param.pitch}, {"yaw", &param.yaw}});
    /* The element is spelled so in every file in the field. */
    QueryChildAttributes<float>(
        element, "instrinsic",
        {{"fx", &param.fx}, {"fy", &param.fy}, {"cx", &param.cx}, {"cy", &param.cy}});
    QueryChildAttributes<float>(element, "fov", {{"hfov", &param.hfov}, {"vfov", &param.vfov}});
    QueryChildAttributes<double>(element, "distortion",
                                 {{"k1", &param.k1},
                                  {"k2", &param.k2},
                                  {"p1", &param.p1},
                                  {"p2", &param.p2},
                                  {"k3", &param.k3}});
    return param;
}

GlobalCameraConfig::ChannelConfig GlobalCameraConfig::parseChannelConfig(
    const XMLElement* element) {
    ChannelConfig channel;
    if (element == nullptr)
        return channel;
    element->QueryAttribute("id", &channel.id);
    QueryString(element, "dev", &channel.dev);

    if (element->FirstChildElement("cameraModel") == nullptr)
        marlo_log(MARLO_LOG_WARN, kTag, "%s: channel %d has no <cameraModel>, left empty",
                  "parseChannelConfig", channel.id);
    else
        ReadText("parseChannelConfig", element, "cameraModel", &channel.cameraModel);

    const XMLElement* param = element->FirstChildElement("cameraParam");
    if (param != nullptr)
        channel.cameraParam = parseCameraParam(param);

    ParseChildren(element, "stream", "parseChannelConfig", parseStreamConfig, &channel.streams);
    return channel;
}

GlobalCameraConfig::CameraConfig GlobalCameraConfig::parseCameraConfig(const XMLElement* element) {
    CameraConfig camera;
    if (element == nullptr)
        return camera;
    element->QueryAttribute("id", &camera.id);
    ReadText("parseCameraConfig", element, "entity", &camera.entity);
    ReadText("parseCameraConfig", element, "subDev", &camera.subDev);
    ReadText("parseCameraConfig", element, "mbusCode", &camera.mbusCode);

    const XMLElement* channels = element->FirstChildElement("channels");
    if (channels == nullptr)
        return camera;
    ParseChildren(channels, "channel", "parseCameraConfig", parseChannelConfig, &camera.channels);
    return camera;
}

namespace {

/* One <inputMap>: its mapping and its calibration go into \a board. */
void ParseInputMap(const XMLElement* inputMap, GlobalCameraConfig::BoardConfig* board) {
    int camId = -1;
    inputMap->QueryAttribute("camId", &camId);
    if (camId < 0)
        return;

    const XMLElement* inputSrc = inputMap->FirstChildElement("inputSrc");
    if (inputSrc == nullptr) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: no internal <inputSrc> specified", "parseBoardConfig");
        return;
    }

    GlobalCameraConfig::InputSrc src;
    inputSrc->QueryAttribute("cameraId", &src.cameraId);
    inputSrc->QueryAttribute("channelId", &src.channelId);
    inputSrc->QueryAttribute("streamId", &src.streamId);
    if (src.cameraId >= 0 && src.channelId >= 0 && src.streamId >= 0) {
        marlo_log(MARLO_LOG_INFO, kTag,
                  "Parsed camera mapping %d stream %d, channel %d of camera %d", camId,
                  src.streamId, src.channelId, src.cameraId);
        board->inputMap[camId] = src;
    }

    /* The calibration stands on its own: it is kept even for a rejected mapping. */
    const XMLElement* param = inputMap->FirstChildElement("cameraParam");
    if (param != nullptr)
        board->cameraParams[camId] = GlobalCameraConfig::parseCameraParam(param);
}

}  // namespace

GlobalCameraConfig::BoardConfig GlobalCameraConfig::parseBoardConfig(const XMLElement* element) {
    BoardConfig board;
    if (element == nullptr)
        return board;
    const char* name = element->Attribute("name");
    if (name != nullptr) {
        board.name = name;
        marlo_log(MARLO_LOG_INFO, kTag, "%s: parsing board: %s!", "parseBoardConfig", name);
    }

    const XMLElement* cameras = element->FirstChildElement("cameras");
    if (cameras != nullptr)
        ParseChildren(cameras, "camera", "parseBoardConfig", parseCameraConfig, &board.cameras);

    const XMLElement* mapping = element->FirstChildElement("inputMapping");
    if (mapping == nullptr) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: no internal <inputMapping> specified",
                  "parseBoardConfig");
        return board;
    }
    ForEachChild(mapping, "inputMap",
                 [&board](const XMLElement* child) { ParseInputMap(child, &board); });
    return board;
}

}  // namespace tessaro::marlo
