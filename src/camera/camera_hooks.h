/*
 * CameraHooks: the calls between the stream registry and the camera layer
 * that tests need to refuse or to hold, routed through one replaceable
 * object. Some answers of the camera layer never happen in practice (a
 * camera that makes no client camera, a client camera that does not open or
 * is not taken into its camera's list), and some races need a thread held
 * at an exact point (an open that found the camera, a close about to shut
 * it). A test installs a derived CameraHooks that overrides those calls and
 * hands the rest to these defaults, which call the camera members and
 * nothing else. An injected object rather than test definitions of the
 * members themselves: it works whatever the library exports and however it
 * is linked.
 *
 * The hooks are process-wide, like the registry whose calls go through
 * them. Production never installs any.
 */
#pragma once

#include <memory>

namespace tessaro::marlo {

class HalCamera;
class VirtualCamera;

namespace detail {

class CameraHooks {
  public:
    CameraHooks() = default;
    virtual ~CameraHooks();

    CameraHooks(const CameraHooks&) = delete;
    CameraHooks& operator=(const CameraHooks&) = delete;

    /* V4l2Stream::OpenCamera, once the registry lock is let go: HalCamera::MakeVirtualCamera. */
    virtual std::shared_ptr<VirtualCamera> makeVirtualCamera(HalCamera& camera, int clientId);
    /* V4l2Stream::ClientStartStream, before the state changes: VirtualCamera::openVideoStream. */
    virtual bool openVideoStream(VirtualCamera& client, int width, int height, int format);
    /*
     * V4l2Stream::CloseCamera, once the camera has no client left (and left
     * the registry, unless another open found it): HalCamera::clientStreamclosing.
     */
    virtual void clientStreamclosing(HalCamera& camera);
    /* HalCamera::MakeVirtualCamera, for the client camera it made: HalCamera::OwnVirtualCamera. */
    virtual bool ownVirtualCamera(HalCamera& camera, std::shared_ptr<VirtualCamera>& client);

    /* The hooks in use: the installed ones, else the defaults. */
    static CameraHooks& Current();
    /*
     * Uses \a hooks from now on (null: the defaults) and returns the ones
     * used before. Install while no camera call is under way; the hooks
     * must live until they are replaced.
     */
    static CameraHooks* Install(CameraHooks* hooks);
};

}  // namespace detail
}  // namespace tessaro::marlo
