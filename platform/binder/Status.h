// Status: how a call through a binder went. A value; copy it freely. The library does not look at
// it.

#pragma once

#include <stdint.h>
#include <utils/Errors.h>

namespace android {
namespace binder {

class Status final {
  public:
    Status() = default;
    static Status ok() { return Status(); }
};

}  // namespace binder
}  // namespace android
