// What a fuzz target is made of. target.cpp runs it as LLVMFuzzerTestOneInput.
//
// A target runs in a root of its own, an empty directory in memory, so neither a path nor a link
// leads out of it, while libFuzzer keeps its corpus and its findings outside. After each input
// nothing but that root has changed and no descriptor is left open; an input that takes a minute
// hangs.
#pragma once

#include <string>

namespace peltex_fuzz {

// A target defines these two. prepare() is called once; runInput() must leave the root as it found
// it, so that an input does the same alone as behind others.
void prepare();
void runInput(const std::string& input);

// How many links the product has made.
int linksMade();

}  // namespace peltex_fuzz
