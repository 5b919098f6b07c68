// The slices of one split archive: names, opens, closes and labels them, hands them over, and
// removes what nobody may take for a slice.
#pragma once

#include <utils/Vector.h>

#include <string>

#include "tar/tar_callback.h"
#include "tar/tar_stream.h"

namespace android::installd {

struct SliceOptions {
    std::string basePath;  // of the slices' names: `basePath`.0, .1, ... and `basePath`.txt
    long size = 0;         // bytes that make a slice full
    std::string seInfo;    // for the labels of slices and check file
    unsigned int uid = 0;  // their owner and group
};

// Takes from the words of the command what slices need.
SliceOptions PackSplitPre(std::string tarPath, const std::string* args, unsigned int uid);

// A slice is full by the size last looked at: after chunks of content and after the headers that
// SplitWriteAll writes. What goes into the stream directly, the headers of files and the long-name
// records, counts with the next look.
class Slices {
  public:
    // `stream` and `callBack` must outlive the object.
    Slices(SliceOptions options, TarStream& stream, TarCallBack& callBack);
    Slices(const Slices&) = delete;
    Slices& operator=(const Slices&) = delete;

    // Opens the next slice.
    bool CreateSplitFile();

    // Writes to the slice, and looks at its size. Returns `len`, or 0 when that is below 1 or the
    // write failed.
    int SplitWriteAll(const char* buf, int len);

    // By the size last looked at.
    bool isFull() const { return m_sizeSeen >= m_options.size; }
    bool isEmpty() const { return m_sizeSeen == 0; }

    // What is left of the slice, negative where more was written, and what a whole one holds.
    long room() const { return m_options.size - m_stream.fileBytes(); }
    long sliceSize() const { return m_options.size; }

    // How many are closed.
    size_t count() const { return m_splitSizes.size(); }

    // Ends the slice with its end blocks, and takes down its size.
    bool close();

    // Labels the slice that was closed last and tells of it. From then on it is the client's.
    bool handOver(bool isLast);

    // Takes back the slice that was opened last, and tells that the one before was the last.
    void removeEmpty();

    // Writes the check file of all slices that are closed.
    bool CreateCheckFile();

    // After a failure: removes the slice that is being written, or that was closed and could not be
    // handed over. What the client was told of stays.
    void ClearDirtyData();

  private:
    bool FlushCurSplitTarAttr();
    bool FixAttrForSeLinux(const std::string& path);

    const SliceOptions m_options;
    TarStream& m_stream;
    TarCallBack& m_callBack;
    std::string m_curTarPath;     // of the slice opened last
    bool m_isUnfinished = false;  // it was not handed over, be its stream open or not
    long m_sizeSeen = 0;          // its size, when last looked at
    Vector<long> m_splitSizes;    // of each closed slice, in bytes, as on disk
};

}  // namespace android::installd
