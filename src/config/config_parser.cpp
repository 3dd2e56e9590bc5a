/*
 * Parsing of the configuration file's elements into the records of
 * GlobalCameraConfig. Numbers come from the XML library's typed attribute
 * queries; an absent or unparsable attribute leaves the record's default.
 */
#include <marlo/base/logger.h>
#include <marlo/config/config.h>
#include <tinyxml2.h>

#include <cstring>

using tinyxml2::XMLAttribute;
using tinyxml2::XMLElement;

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_config";

void QueryInt(const XMLElement* element, const char* name, int* value) {
    const XMLAttribute* attribute = element->FindAttribute(name);
    if (attribute != nullptr)
        attribute->QueryIntValue(value);
}

void QueryFloat(const XMLElement* element, const char* name, float* value) {
    const XMLAttribute* attribute = element->FindAttribute(name);
    if (attribute != nullptr)
        attribute->QueryFloatValue(value);
}

void QueryDouble(const XMLElement* element, const char* name, double* value) {
    const XMLAttribute* attribute = element->FindAttribute(name);
    if (attribute != nullptr)
        attribute->QueryDoubleValue(value);
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
    QueryInt(element, "id", &stream.id);
    const char* format = element->Attribute("format");
    if (format != nullptr)
        stream.format = FourccFromText(format, stream.id);
    QueryInt(element, "width", &stream.width);
    QueryInt(element, "height", &stream.height);
    QueryInt(element, "buf_cnt", &stream.buf_cnt);
    /* Optional: the frame rate to ask the node for; 0 leaves the driver's own. */
    QueryFloat(element, "fps", &stream.fps);
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

    const XMLElement* orientation = element->FirstChildElement("orientation");
    if (orientation != nullptr) {
        QueryFloat(orientation, "roll", &param.roll);
        QueryFloat(orientation, "pitch", &param.pitch);
        QueryFloat(orientation, "yaw", &param.yaw);
    }

    /* The element is spelled so in every file in the field. */
    const XMLElement* intrinsic = element->FirstChildElement("instrinsic");
    if (intrinsic != nullptr) {
        QueryFloat(intrinsic, "fx", &param.fx);
        QueryFloat(intrinsic, "fy", &param.fy);
        QueryFloat(intrinsic, "cx", &param.cx);
        QueryFloat(intrinsic, "cy", &param.cy);
    }

    const XMLElement* fov = element->FirstChildElement("fov");
    if (fov != nullptr) {
        QueryFloat(fov, "hfov", &param.hfov);
        QueryFloat(fov, "vfov", &param.vfov);
    }

    const XMLElement* distortion = element->FirstChildElement("distortion");
    if (distortion != nullptr) {
        QueryDouble(distortion, "k1", &param.k1);
        QueryDouble(distortion, "k2", &param.k2);
        QueryDouble(distortion, "p1", &param.p1);
        QueryDouble(distortion, "p2", &param.p2);
        QueryDouble(distortion, "k3", &param.k3);
    }
    return param;
}

GlobalCameraConfig::ChannelConfig GlobalCameraConfig::parseChannelConfig(
    const XMLElement* element) {
    ChannelConfig channel;
    if (element == nullptr)
        return channel;
    QueryInt(element, "id", &channel.id);
    QueryString(element, "dev", &channel.dev);

    if (element->FirstChildElement("cameraModel") == nullptr)
        marlo_log(MARLO_LOG_WARN, kTag, "%s: channel %d has no <cameraModel>, left empty",
                  "parseChannelConfig", channel.id);
    else
        ReadText("parseChannelConfig", element, "cameraModel", &channel.cameraModel);

    const XMLElement* param = element->FirstChildElement("cameraParam");
    if (param != nullptr)
        channel.cameraParam = parseCameraParam(param);

    for (const XMLElement* child = element->FirstChildElement("stream"); child != nullptr;
         child = child->NextSiblingElement("stream")) {
        StreamConfig stream = parseStreamConfig(child);
        marlo_log(MARLO_LOG_INFO, kTag, "%s: parsed stream id:%d!", "parseChannelConfig",
                  stream.id);
        channel.streams.push_back(stream);
    }
    return channel;
}

GlobalCameraConfig::CameraConfig GlobalCameraConfig::parseCameraConfig(const XMLElement* element) {
    CameraConfig camera;
    if (element == nullptr)
        return camera;
    QueryInt(element, "id", &camera.id);
    ReadText("parseCameraConfig", element, "entity", &camera.entity);
    ReadText("parseCameraConfig", element, "subDev", &camera.subDev);
    ReadText("parseCameraConfig", element, "mbusCode", &camera.mbusCode);

    const XMLElement* channels = element->FirstChildElement("channels");
    if (channels == nullptr)
        return camera;
    for (const XMLElement* child = channels->FirstChildElement("channel"); child != nullptr;
         child = child->NextSiblingElement("channel")) {
        ChannelConfig channel = parseChannelConfig(child);
        marlo_log(MARLO_LOG_INFO, kTag, "%s: parsed channel id:%d!", "parseCameraConfig",
                  channel.id);
        camera.channels.push_back(std::move(channel));
    }
    return camera;
}

namespace {

/* One <inputMap>: its mapping and its calibration go into \a board. */
void ParseInputMap(const XMLElement* inputMap, GlobalCameraConfig::BoardConfig* board) {
    int camId = -1;
    QueryInt(inputMap, "camId", &camId);
    if (camId < 0)
        return;

    const XMLElement* inputSrc = inputMap->FirstChildElement("inputSrc");
    if (inputSrc == nullptr) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: no internal <inputSrc> specified", "parseBoardConfig");
        return;
    }

    GlobalCameraConfig::InputSrc src;
    QueryInt(inputSrc, "cameraId", &src.cameraId);
    QueryInt(inputSrc, "channelId", &src.channelId);
    QueryInt(inputSrc, "streamId", &src.streamId);
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
    if (cameras != nullptr) {
        for (const XMLElement* child = cameras->FirstChildElement("camera"); child != nullptr;
             child = child->NextSiblingElement("camera")) {
            CameraConfig camera = parseCameraConfig(child);
            marlo_log(MARLO_LOG_INFO, kTag, "%s: parsed camera id:%d!", "parseBoardConfig",
                      camera.id);
            board.cameras.push_back(std::move(camera));
        }
    }

    const XMLElement* mapping = element->FirstChildElement("inputMapping");
    if (mapping == nullptr) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: no internal <inputMapping> specified",
                  "parseBoardConfig");
        return board;
    }
    for (const XMLElement* child = mapping->FirstChildElement("inputMap"); child != nullptr;
         child = child->NextSiblingElement("inputMap"))
        ParseInputMap(child, &board);
    return board;
}

}  // namespace tessaro::marlo
