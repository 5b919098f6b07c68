// How the packer and the extractor speak to the one who started them. Called on the thread that
// packs or unpacks.
#pragma once

namespace android::installd {

class TarCallBack {
  public:
    virtual ~TarCallBack() = default;

    // Whether to stop. Asked after every entry, every chunk of content and every finished slice.
    virtual bool IsAborted() = 0;

    // So many bytes more are done.
    virtual void OnTaskProgress(unsigned long bytes) = 0;

    // A slice is finished and on disk: its path, with "|end" behind it for the last one, or "end"
    // alone when the last one came out empty and is gone again.
    virtual void OnPackagedOneSplitTar(const char* sliceInfo) = 0;

    // Blocks until packing may go on with the next slice, or is aborted.
    virtual void WaitTaskLocked() = 0;
};

// In place of a callback that is null: nobody listens, and nobody aborts.
class NoCallBack final : public TarCallBack {
  public:
    bool IsAborted() override { return false; }
    void OnTaskProgress(unsigned long /*bytes*/) override {}
    void OnPackagedOneSplitTar(const char* /*sliceInfo*/) override {}
    void WaitTaskLocked() override {}
};

}  // namespace android::installd
