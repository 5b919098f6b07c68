// TarFile packs a directory tree into one archive, or into slices of a given size with a check file
// that lists them. It walks the tree and says what is left out; an EntryWriter writes the rest. It
// knows its TarCallBack and nothing of who is behind it.
//
// One object packs one tree on one thread. Failures are logged where they are met and end the pack;
// what a member returns then is false.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/path_buffer.h"
#include "base/place.h"
#include "base/walk_level.h"
#include "tar/entry_writer.h"
#include "tar/tar_callback.h"
#include "tar/tar_stream.h"

namespace android::installd {

class TarFile {
  public:
    // For one whole archive. `callBack` may be null and must outlive the object.
    explicit TarFile(TarCallBack* callBack);

    // For slices. `workerIndex` is the caller's, and not read.
    TarFile(TarCallBack* callBack, unsigned long workerIndex);

    virtual ~TarFile();
    TarFile(const TarFile&) = delete;
    TarFile& operator=(const TarFile&) = delete;

    // Packs what is under `srcDir` into a new file `tarPath`, which is removed again when that
    // fails. True also for a pack that was aborted between two entries: what came before is in it.
    bool PackDir(const char* srcDir, const char* tarPath);

    // Packs what is under `srcDir` into slices named `tarPath`.0, .1, ... and lists them in
    // `tarPath`.txt. `args` holds the kSplitArguments words of the command: the fifth is the slice
    // size in MiB, the sixth the SELinux information. Slices belong to `uid`. A pack that fails
    // leaves the slices that were handed over.
    bool PackSplitDir(const std::string& srcDir, std::string tarPath, const std::string* args,
                      unsigned int uid);

    static constexpr size_t kSplitArguments = 7;

  private:
    bool CheckDir(const char* dir);
    bool openTar(const char* tarPath);
    bool packTree(EntryWriter& writer);
    bool TraversalPackDir(EntryWriter& writer, const Place& directory, PathBuffer& path);
    bool packEntries(EntryWriter& writer, WalkLevel& level, PathBuffer& path);
    int DoPack(EntryWriter& writer, const Place& entry);
    bool Filter(const char* path, const struct stat* st);

    NoCallBack m_noCallBack;
    TarCallBack& m_callBack;
    bool m_isSplit = false;
    std::string m_rootPath;  // what is packed, without a trailing '/'
    TarStream m_stream;      // of the archive or the current slice
};

}  // namespace android::installd
