#include <cstdio>
#include <new>

#include "kes_energy.h"

using kes::Energy::kesEnergy;

int main(int argc, char** argv)
{
    // Line-buffered, so that the journal sees each record as it happens.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    kesEnergy::InstallSigtermHandler();

    kesEnergy* energy = new (std::nothrow) kesEnergy();
    kes::kes_delete_ptr_reference<kesEnergy> guard(energy);
    if (!energy)
        return KES_LOG(kes::kesErrorOutOfMemory, "Can not create Energy Object");
    if (energy->Init(argc, argv) != kes::kesErrorOk)
        return KES_LOG(kes::kesErrorFailed, "Energy Init");
    if (energy->Execute() != kes::kesErrorOk)
        return KES_LOG(kes::kesErrorFailed, "Energy Execute");
    if (energy->Term() != kes::kesErrorOk)
        return KES_LOG(kes::kesErrorFailed, "Energy Term");
    return KES_LOG(kes::kesErrorOk, "[EXIT SUCCESS]");
}
