// What the fuzz targets share. Each is one function from bytes to nothing, called by libFuzzer, or by main.cpp in
// builds without it.
#pragma once

#include "tests/world.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// What must hold, whatever the input; else the input is a finding.
inline void Expect(bool holds, const char* what)
{
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

// The world in which one input is tried; `use` gets an object and calls its operations.
template <typename USE>
void Try_In(world::S_World& world, USE use)
{
    world::g_World = &world;
    world::Bt bt;
    world::g_IsInside = true;
    use(bt);
    world::g_IsInside = false;
}
