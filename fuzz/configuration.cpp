// The configuration loader fed with arbitrary files.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "kes_energy.h"
#include "kes_error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string path = "/tmp/kes_fuzz_conf_" + std::to_string(getpid()) + ".xml";
    kes::kesError::Level = 0;
    FILE* file = fopen(path.c_str(), "wb");
    if (!file)
        return 0;
    fwrite(data, 1, size, file);
    fclose(file);
    {
        kes::Energy::kesEnergy energy;
        energy.Configure(path.c_str());
    }
    unlink(path.c_str());
    return 0;
}
