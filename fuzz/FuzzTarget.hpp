#pragma once
// WIRELOOM_FUZZ_TARGET(name) { ... } defines a fuzz target's body as the
// function wireloomFuzz_<name>. Built as a libFuzzer program (where
// WIRELOOM_LIBFUZZER is defined) it also becomes LLVMFuzzerTestOneInput;
// the unit tests call the named functions to replay the kept inputs of every
// target in one program.

#include <cstddef>
#include <cstdint>

#ifdef WIRELOOM_LIBFUZZER
#define WIRELOOM_FUZZ_ENTRY(name)                                                       \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
        return wireloomFuzz_##name(data, size);                                         \
    }
#else
#define WIRELOOM_FUZZ_ENTRY(name)
#endif

#define WIRELOOM_FUZZ_TARGET(name)                                       \
    int wireloomFuzz_##name(const std::uint8_t* data, std::size_t size); \
    WIRELOOM_FUZZ_ENTRY(name)                                            \
    int wireloomFuzz_##name(const std::uint8_t* data, std::size_t size)
