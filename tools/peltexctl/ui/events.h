// What the program reports, one line per event on standard output: JSON objects for programs, or
// the same in words for people. Every line is written whole and flushed.
//
// Names of files are bytes: in JSON those that are no UTF-8 are shown with the code points of their
// bytes' values, and "raw" beside them holds the bytes in hexadecimal.
//
// Thread-safe: the library's threads and the program's own write through one object.
#pragma once

#include <cstdio>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "ui/progress_view.h"

namespace peltexctl {

using Json = nlohmann::ordered_json;

void SetBytes(Json* object, const char* key, std::string_view bytes, const char* raw_key = "raw");
std::string JsonLine(const Json& object);

enum StatusCode : int {
    kStatusFailed = -1,
    kStatusSuccess = 0,
    kStatusStarted = 1,
    kStatusAborted = 2,
    kStatusProgress = 3,
    kStatusSlicePackaged = 4,
    kStatusTimeout = 5,
    kStatusBriefSize = 6,
};

// One call of a client callback.
struct StatusEvent {
    int session;
    int task;
    int code;
    std::string message;
    int callback;  // the callback object's number, from 1
};

// Whether a task is over with this status, and whether it never began, because of a path.
bool EndsTask(const StatusEvent& event);
bool RefusesPath(const StatusEvent& event);
std::string DescribeStatus(const StatusEvent& event);

class EventWriter {
  public:
    // Writes objects or words. A `quiet` one tells only what went wrong.
    EventWriter(bool json, bool quiet, FILE* stream = stdout)
        : json_(json), quiet_(quiet), stream_(stream), view_(quiet || json) {}

    bool json() const { return json_; }
    FILE* stream() const { return stream_; }
    // What all lines go past.
    ProgressView& view() { return view_; }

    void Session(int session);
    void Result(const std::string& command, int result);
    void Status(const StatusEvent& event);
    void Closed(int session, int result);
    // An event as an object, and the same in words.
    void Tell(const Json& object, const std::string& text, bool went_wrong = false);
    // In words it goes to standard error.
    void Error(const std::string& message);
    // The same for what is no failure.
    void Note(const std::string& message);

  private:
    const bool json_;
    const bool quiet_;
    FILE* const stream_;
    ProgressView view_;
};

}  // namespace peltexctl
