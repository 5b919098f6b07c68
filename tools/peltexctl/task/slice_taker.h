// Takes the slices of a split backup as they are handed over: into the directory of --take, and
// into the sums of --sums.
//
// Not thread-safe. Throws Failure.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "archive/sums.h"
#include "task/directory.h"
#include "task/task_kinds.h"

namespace peltexctl {

class SliceTaker {
  public:
    // Makes and holds the directory that slices are taken to. `tick` is called now and then while a
    // slice is copied; what it throws ends that.
    SliceTaker(const TaskRequest& request, std::function<void()> tick);

    // The file `name` of DEST: a slice.
    void Take(const std::string& name);

    // The backup has come to a good end: takes the check file, too, and writes the sums.
    void Finish();

    // Where the set is in the end.
    const std::string& directory() const {
        return request_.take.empty() ? request_.destination : request_.take;
    }

    // Where how many of `count` slices are.
    std::string DescribeLeft(uint64_t count) const;

  private:
    void Copy(const std::string& name, const std::string& failure);
    // The directory that the set is in.
    int held() const { return (request_.take.empty() ? from_ : to_.fd()).get(); }

    const TaskRequest& request_;
    const std::function<void()> tick_;
    UniqueFd from_;
    MadeDirectory to_;
    Summer summer_{directory()};
    uint64_t taken_ = 0;  // slices that are elsewhere
};

}  // namespace peltexctl
