#include "camera/camera_hooks.h"

#include <atomic>

#include <marlo/camera/hal_camera.h>
#include <marlo/camera/virtual_camera.h>

namespace tessaro::marlo::detail {

namespace {

std::atomic<CameraHooks*> g_installed{nullptr};

}  // namespace

CameraHooks::~CameraHooks() = default;

std::shared_ptr<VirtualCamera> CameraHooks::makeVirtualCamera(HalCamera& camera, int clientId) {
    return camera.MakeVirtualCamera(clientId);
}

bool CameraHooks::openVideoStream(VirtualCamera& client, int width, int height, int format) {
    return client.openVideoStream(width, height, format);
}

void CameraHooks::clientStreamclosing(HalCamera& camera) {
    camera.clientStreamclosing();
}

bool CameraHooks::ownVirtualCamera(HalCamera& camera, std::shared_ptr<VirtualCamera>& client) {
    return camera.OwnVirtualCamera(client);
}

CameraHooks& CameraHooks::Current() {
    /* Never destroyed: streams closed by static destructors still call through it. */
    static CameraHooks* const defaults = new CameraHooks();
    CameraHooks* installed = g_installed.load(std::memory_order_acquire);
    return installed ? *installed : *defaults;
}

CameraHooks* CameraHooks::Install(CameraHooks* hooks) {
    return g_installed.exchange(hooks, std::memory_order_acq_rel);
}

}  // namespace tessaro::marlo::detail
