/*
 * Pieces of the stream event suites: the event recorder and CPU time of the
 * shared test support, over the stream suites' fixture.
 */
#pragma once

#include <linux/videodev2.h>

#include <memory>
#include <string>
#include <thread>

#include "camera/camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/camera/stream_event.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "stream_test_util.h"
#include "support/process_stats.h"
#include "support/stream_event_log.h"

namespace stream_test {

using tessaro::marlo::StreamEvent;
using tessaro::marlo::StreamEventType;

using EventLog = marlo_test::StreamEventLog;
using marlo_test::ProcessCpuMs;
using marlo_test::ThreadCpuMs;

/* The events suites run over the stream fixture. */
using StreamEventsTest = StreamTest;

}  // namespace stream_test
