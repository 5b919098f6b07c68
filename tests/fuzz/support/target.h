// What a fuzz target is made of. The support code runs it as LLVMFuzzerTestOneInput.
//
// A target runs on a thread of its own whose root is an empty directory in memory (threads that it
// starts share that root), so neither a path nor a link leads out of it, while libFuzzer keeps its
// corpus and its findings outside.
#pragma once

#include <string>

namespace peltex_fuzz {

// A target defines these two. prepare() is called once; runInput() must leave the root as it found
// it, so that an input does the same alone as behind others.
void prepare();
void runInput(const std::string& input);

}  // namespace peltex_fuzz
