#include <marlo/base/error.h>

#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <set>

#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::LogCapture;

TEST(ErrorToShortString, KnownAndUnknownCodes) {
    EXPECT_EQ(ErrorToShortString(0), "OK");
    EXPECT_EQ(ErrorToShortString(-2), "ERR_FAILED");
    EXPECT_EQ(ErrorToShortString(-28), "ERR_<unknown>");
    EXPECT_EQ(ErrorToShortString(5), "ERR_<unknown>");
    EXPECT_EQ(ErrorToShortString(-811), "ERR_<unknown>");
    EXPECT_EQ(ErrorToShortString(-810), "ERR_DNS_REQUEST_CANCELLED");
    EXPECT_EQ(ErrorToShortString(-1), "ERR_IO_PENDING");
}

TEST(ErrorToShortString, TheListsOwnSpellingsStay) {
    EXPECT_EQ(ErrorToShortString(-21), "ERR_NETRPCWORK_CHANGED");
    EXPECT_EQ(ErrorToShortString(-138), "ERR_NETRPCWORK_ACCESS_DENIED");
    EXPECT_EQ(ErrorToShortString(-331), "ERR_NETRPCWORK_IO_SUSPENDED");
}

TEST(ErrorToShortString, ExactlyTheNamedCodesHaveNames) {
    const std::set<int> gaps = {-28, -116, -146, -175};
    int named = 0;
    for (int code = -900; code <= 0; ++code) {
        if (ErrorToShortString(code) != "ERR_<unknown>")
            ++named;
        if (gaps.count(code)) {
            EXPECT_EQ(ErrorToShortString(code), "ERR_<unknown>") << code;
        }
    }
    EXPECT_EQ(named, 232 + 1);  // the named codes and OK
}

TEST(ErrorToString, Prefix) {
    EXPECT_EQ(ErrorToString(-4), "marlo::ERR_INVALID_ARGUMENT");
    EXPECT_EQ(ErrorToString(0), "marlo::OK");
    EXPECT_EQ(ErrorToString(-116), "marlo::ERR_<unknown>");
}

TEST(ErrorConstants, Values) {
    EXPECT_EQ(ERR_FAILED, -2);
    EXPECT_EQ(ERR_INVALID_ARGUMENT, -4);
    EXPECT_EQ(ERR_NOT_IMPLEMENTED, -11);
    EXPECT_EQ(ERR_CERT_END, -219);
    EXPECT_EQ(ERR_CERT_DATABASE_CHANGED, -714);
}

TEST(MapSystemError, ZeroIsOkWithoutMessage) {
    LogCapture capture;
    EXPECT_EQ(MapSystemError(0), OK);
    EXPECT_TRUE(capture.records().empty());
}

TEST(MapSystemError, EagainIsIoPending) {
    LogCapture capture;
    EXPECT_EQ(MapSystemError(EAGAIN), -1);
    EXPECT_EQ(MapSystemError(EAGAIN), ERR_IO_PENDING);
    std::string expected =
        std::string("Error ") + std::to_string(EAGAIN) + " : " + strerror(EAGAIN) + "\n";
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, "marlo_base", expected));
}

TEST(MapSystemError, EioLogsBothMessagesAndFails) {
    LogCapture capture;
    EXPECT_EQ(MapSystemError(EIO), ERR_FAILED);
    auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, std::string("Error 5 : ") + strerror(EIO) + "\n");
    EXPECT_EQ(records[1].message,
              std::string("Unknown error ") + strerror(EIO) + " mapped to ERR_FAILED\n");
    EXPECT_EQ(records[1].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(records[1].tag, "marlo_base");
}

TEST(MapSystemError, FullTable) {
    LogCapture capture;
    const std::pair<int, int> table[] = {
        {EPERM, -10},         {EACCES, -10},         {EISDIR, -10},      {ETXTBSY, -10},
        {EROFS, -10},         {ENOENT, -6},          {ENOTDIR, -6},      {E2BIG, -4},
        {EFAULT, -4},         {ENODEV, -4},          {EINVAL, -4},       {EBADF, -5},
        {EAGAIN, -1},         {ENOMEM, -13},         {EBUSY, -12},       {ENFILE, -12},
        {EMFILE, -12},        {EDEADLK, -12},        {ENOLCK, -12},      {EUSERS, -12},
        {EEXIST, -16},        {EFBIG, -8},           {ENOSPC, -18},      {EDQUOT, -18},
        {EPIPE, -101},        {ENETRESET, -101},     {ECONNRESET, -101}, {ENAMETOOLONG, -17},
        {ENOSYS, -11},        {ENOPROTOOPT, -11},    {EOPNOTSUPP, -11},  {EMSGSIZE, -142},
        {EAFNOSUPPORT, -109}, {ENETUNREACH, -109},   {EHOSTDOWN, -109},  {EHOSTUNREACH, -109},
        {EADDRINUSE, -147},   {EADDRNOTAVAIL, -108}, {ENETDOWN, -106},   {ECONNABORTED, -103},
        {ENOBUFS, -176},      {EISCONN, -23},        {ENOTCONN, -15},    {ETIMEDOUT, -7},
        {ECONNREFUSED, -102}, {ECANCELED, -3},
    };
    for (const auto& [err, code] : table)
        EXPECT_EQ(MapSystemError(err), code) << "errno " << err;
    // The board's values, which the table is written for.
    EXPECT_EQ(EDEADLK, 35);
    EXPECT_EQ(EOPNOTSUPP, 95);
    EXPECT_EQ(EUSERS, 87);
    EXPECT_EQ(ECANCELED, 125);
}

TEST(MapSystemError, UnlistedValuesFail) {
    LogCapture capture;
    EXPECT_EQ(MapSystemError(126), ERR_FAILED);
    EXPECT_EQ(MapSystemError(4000), ERR_FAILED);
    EXPECT_EQ(MapSystemError(-3), ERR_FAILED);
    EXPECT_EQ(MapSystemError(EINTR), ERR_FAILED);
    EXPECT_EQ(
        capture.count(std::string("Unknown error ") + strerror(-3) + " mapped to ERR_FAILED\n"),
        1u);
}
