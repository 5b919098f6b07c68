// Status: how a call through a binder went. A value; copy it freely.

#pragma once

#include <stdint.h>
#include <utils/Errors.h>

namespace android {
namespace binder {

class Status final {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        // The call did not arrive or did not come back; transactionError() says why.
        EX_TRANSACTION_FAILED = -129,
    };

    Status() = default;
    static Status ok() { return Status(); }
    static Status fromStatusT(status_t status) {
        Status result;
        result.mException = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
        result.mTransactionError = status;
        return result;
    }

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    // OK unless exceptionCode() is EX_TRANSACTION_FAILED.
    status_t transactionError() const { return mTransactionError; }

  private:
    int32_t mException = EX_NONE;
    status_t mTransactionError = OK;
};

}  // namespace binder
}  // namespace android
