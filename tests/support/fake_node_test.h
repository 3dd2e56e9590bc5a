/*
 * FakeNodeTest: a test over one node of the fake V4L2 kernel. The test adds
 * its node (video, sub-device or media controller) and the fixture drops it
 * and resets the fake kernel afterwards, so that no node, injected fault or
 * recorded request reaches the next test. A fixture that holds devices over
 * the node releases them in its own TearDown before calling this one.
 */
#pragma once

#include <linux/videodev2.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "fake_v4l2.h"

namespace marlo_test {

template <typename Node>
class FakeNodeTest : public ::testing::Test {
  protected:
    void TearDown() override {
        node_.reset();
        marlo_fake::Reset();
    }

    std::shared_ptr<Node> node_;
};

/* A capture node; AddNode() (again) replaces it under the same path. */
class FakeVideoNodeTest : public FakeNodeTest<marlo_fake::FakeVideoNode> {
  protected:
    /* A single-planar streaming capture driver, where the default is multi-planar. */
    static constexpr uint32_t kSinglePlanar = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;

    void AddNode(const std::string& path, marlo_fake::VideoNodeConfig config = {}) {
        node_ = marlo_fake::AddVideoNode(path, std::move(config));
    }

    /* The default node but for its capabilities word and device_caps word. */
    static marlo_fake::VideoNodeConfig WithCapabilities(uint32_t capabilities,
                                                        uint32_t deviceCaps = 0) {
        marlo_fake::VideoNodeConfig config;
        config.capabilities = capabilities;
        config.deviceCaps = deviceCaps;
        return config;
    }
};

}  // namespace marlo_test
