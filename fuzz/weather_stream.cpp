// The weather client fed with an arbitrary station stream: the reader thread
// cuts it into records from a real TCP peer on loopback, each record goes
// through OnData into the weather files, and then the whole input is handed
// to OnData once more as one record. Files go to a temporary folder only.
#include <ftw.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_loopback.h"
#include "kes_energy_davis_meteo.h"
#include "kes_error.h"

namespace {

using kes::kesString;

// Every record the cutter hands over is free of the stream's own marks and
// no longer than a record may grow.
class CheckedMeteo : public kes::Energy::kesEnergyDavisMeteo {
public:
    CheckedMeteo() : kesEnergyDavisMeteo(0) {}
    void OnData(const kesString& i_data) override
    {
        if (i_data.size() > MAX_RECORD_SIZE || i_data.find_first_of("<>,") != std::string::npos)
            abort();
        kesEnergyDavisMeteo::OnData(i_data);
    }
};

int remove_entry(const char* i_path, const struct stat*, int, struct FTW*)
{
    return remove(i_path);
}

struct Folder {
    Folder()
    {
        char pattern[] = "/tmp/kes_fuzz_weather_XXXXXX";
        if (!mkdtemp(pattern))
            abort();
        path = pattern;
    }
    ~Folder() { nftw(path.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS); }
    std::string path;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static kes_fuzz::Listener listener;
    static Folder folder;
    // KES_FUZZ_LOG=1 shows the records of one input, to see how far it got.
    static const unsigned int level = getenv("KES_FUZZ_LOG") ? kes::kesErrorOutConsole : 0;
    kes::kesError::Level = level;
    // The log file would grow with every input of a long run.
    unlink((folder.path + "/meteo").c_str());

    CheckedMeteo meteo;
    meteo.SetAddress("127.0.0.1", listener.Port());
    meteo.SetHistoryFolder(folder.path.c_str());
    const int peer = kes_fuzz::ConnectAndServe(
        listener, [&] { return meteo.Start() == kes::kesErrorOk; }, data, size);
    // The reader closes its end once it has read the end of the stream: by
    // then every byte has been through the cutter. A reader that never gets
    // there is a hang, which the fuzzer's own time-out reports first.
    if (!kes_fuzz::AwaitClose(peer, 60000))
        abort();
    meteo.Stop();
    kes_fuzz::Abort(peer);

    meteo.kesEnergyDavisMeteo::OnData(kesString(reinterpret_cast<const char*>(data), size));
    return 0;
}
