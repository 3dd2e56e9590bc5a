/* HIDL's transport status and the Return wrapper of interface calls. */
#pragma once

#include <stdint.h>

#include <string>

namespace android {
namespace hardware {

class Status {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_ILLEGAL_STATE = -5,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exceptionCode, const char* message = nullptr) {
        Status status;
        status.mException = exceptionCode;
        status.mMessage = message ? message : "";
        return status;
    }

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    std::string description() const {
        if (isOk())
            return "No error";
        return "Status(" + std::to_string(mException) + "): '" + mMessage + "'";
    }

  private:
    int32_t mException = EX_NONE;
    std::string mMessage;
};

namespace details {

class return_status {
  public:
    return_status() = default;
    return_status(const Status& status) : mStatus(status) {}

    bool isOk() const { return mStatus.isOk(); }
    bool isDeadObject() const { return false; }
    std::string description() const { return mStatus.description(); }

  private:
    Status mStatus;
};

}  // namespace details

template <typename T>
class Return;

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& status) : details::return_status(status) {}
};

inline Return<void> Void() {
    return Return<void>();
}

}  // namespace hardware
}  // namespace android
