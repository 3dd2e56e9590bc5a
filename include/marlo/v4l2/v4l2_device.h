/*
 * V4l2Device: the common base of every V4L2 node wrapper. It owns the node's
 * path and descriptor and issues every request through one IoCtl wrapper
 * that retries interrupted calls and logs each failure with the request's
 * short name.
 */
#pragma once

#include <linux/videodev2.h>

#include <string>

#include <marlo/base/unique_fd.h>

namespace tessaro::marlo {

/* The kernel's records, passed through unchanged. */
using V4l2EventSubscription = struct v4l2_event_subscription;
using V4l2Event = struct v4l2_event;

namespace detail {
/* Short name of a V4L2 request code; "unknown" for codes outside the table. */
std::string RequestToString(unsigned request);
}  // namespace detail

class V4l2Device {
  public:
    explicit V4l2Device(const std::string& name);
    ~V4l2Device();

    V4l2Device(const V4l2Device&) = delete;
    V4l2Device& operator=(const V4l2Device&) = delete;

    /*
     * Opens the node read-write and close-on-exec, non-blocking unless
     * \a blocking. A new descriptor replaces the one held before.
     */
    int Open(bool blocking);
    void Close();

    /* Issues \a request, retrying on EINTR: 0 on success, -2 on failure. */
    int IoCtl(unsigned request, void* arg);
    /*
     * IoCtl that also logs "<what> failed : <system error>" when the request
     * fails, led by "<node name>: " when \a named. errno stays the request's.
     */
    int Request(unsigned request, void* arg, const char* what, bool named);
    /*
     * The failure line of Request, for \a err: "<what> failed : <system
     * error>", led by "<node name>: " when \a named.
     */
    void LogFailure(const char* what, bool named, int err) const;
    /* Refuses a call that was given no place for its answer: EINVAL's line, ERR_INVALID_ARGUMENT.
     */
    int RefuseMissingOutput(const char* what) const;

    int QueryCap();
    int SubscribeEvent(V4l2EventSubscription& sub);
    int UnSubscribeEvent(V4l2EventSubscription& sub);
    int DequeEvent(V4l2Event& event);

    /* The node's descriptor (-1 while closed), for waiting on it. */
    int Fd() const { return fd_.get(); }
    const std::string& Name() const { return name_; }

  protected:
    UniqueFd fd_;
    std::string name_;
};

}  // namespace tessaro::marlo
