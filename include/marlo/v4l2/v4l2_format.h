/*
 * V4l2PixelFormat: a V4L2 fourcc code as a small value type, with the short
 * names that configuration files and tools use for capture formats.
 */
#pragma once

#include <ostream>
#include <string>

namespace tessaro::marlo {

class V4l2PixelFormat {
  public:
    V4l2PixelFormat() = default;
    explicit constexpr V4l2PixelFormat(unsigned fourcc) : fourcc(fourcc) {}

    /*
     * The code of a short name such as "NV12" or "BGGR10" (exact,
     * case-sensitive). A name the library does not know gives the invalid
     * code 0 and an error log line.
     */
    static V4l2PixelFormat FromString(std::string name);

    bool IsValid() const { return fourcc != 0; }
    unsigned Fourcc() const { return fourcc; }

    /*
     * The code's own four characters, lowest byte first, each masked to
     * 7 bits and shown as '.' when not printable; "-BE" follows when the
     * big-endian flag (bit 31) is set. The name table is not consulted, so
     * FromString("Y8").ToString() is "GREY". Code 0 gives "<INVALID>".
     */
    std::string ToString() const;

    bool operator==(const V4l2PixelFormat& other) const { return fourcc == other.fourcc; }
    bool operator!=(const V4l2PixelFormat& other) const { return fourcc != other.fourcc; }

  private:
    /* The V4L2 pixel-format code; 0 means invalid. */
    unsigned fourcc = 0;
};

/* Writes ToString(). */
std::ostream& operator<<(std::ostream& out, const V4l2PixelFormat& format);

}  // namespace tessaro::marlo
