/*
 * MediaDevice opens a media-controller node and issues its five requests on
 * records it holds: the caller fills a record's request fields, calls, and
 * reads the answer from the same record. Messages go to standard error, not
 * to the library log.
 */
#pragma once

#include <linux/media.h>

#include <string>

#include <marlo/base/unique_fd.h>

namespace tessaro::marlo {

class MediaDevice {
  public:
    explicit MediaDevice(std::string name);
    virtual ~MediaDevice();

    MediaDevice(const MediaDevice&) = delete;
    MediaDevice& operator=(const MediaDevice&) = delete;

    /* Opens read-write with O_CREAT (mode 0640): a missing path becomes a file. */
    int Open();
    void Close();

    int GetDeviceInfo();
    int GetTopology();
    int EnumEntities();
    int EnumLinks();
    int SetupLinks();

    int Fd() const { return fd_.get(); }
    const std::string& Name() const { return name_; }

    media_device_info& Info() { return info_; }
    media_v2_topology& Topology() { return topology_; }
    media_entity_desc& Entity() { return entity_; }
    media_links_enum& Links() { return links_; }
    media_link_desc& Link() { return link_; }

  protected:
    /* Issues \a request, retrying on EINTR; on failure prints \a failure. */
    int Request(unsigned long request, void* arg, const char* failure);

    std::string name_;
    UniqueFd fd_;
    media_device_info info_;
    media_v2_topology topology_;
    media_entity_desc entity_;
    media_links_enum links_;
    media_link_desc link_;
};

}  // namespace tessaro::marlo
