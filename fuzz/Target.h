#pragma once

#include <cstddef>
#include <cstdint>

/// What a fuzzer calls, by the names that libFuzzer gives them. A target defines `LLVMFuzzerTestOneInput`; a program is
/// a target with libFuzzer around it, or with the plain main of `PlainMain.cpp`.
extern "C" {

/// Runs one input. It comes to the same whatever ran before it in the process. What must not happen ends the process.
/// @return 0.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Called once, before the first input, with the program's arguments: gives the process the plug-in's directories and
/// silences its log. It may start the program anew.
int LLVMFuzzerInitialize(int* count, char*** arguments);
}
