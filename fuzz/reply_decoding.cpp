// Every exchange of the bus engine fed with arbitrary replies. The first byte
// picks the operation; the rest is what the gateway answers, one reply after
// the other, then the connection ends. The engine talks to a real TCP peer on
// loopback, so sending, receiving and every check run as on a real line.
#include <cstdint>
#include <cstdlib>

#include "fuzz_loopback.h"
#include "kes_enerysystem.h"
#include "kes_error.h"

namespace {

using kes::kesEnergyDevice;
using kes::kesEnergySystem;
using kes::kesString;

const unsigned short ADDRESS = 300;
const unsigned int SERIAL = 0x01020304;
// Replies past this stay unsent: the socket buffers take it without a reader.
const size_t MAX_STREAM = 8192;

class Engine : public kesEnergySystem {
public:
    using kesEnergySystem::find_all_devices_10000;
    using kesEnergySystem::old_find_all_devices;

    // One search exchange, coarse or fine.
    void Search(bool i_bFine)
    {
        kes::kesArray<kesEnergyDevice> found;
        if (i_bFine)
            read_all_device_with_10000(&m_oSocket, 1234, &found, 1, true);
        else
            read_all_device_with_100(&m_oSocket, 34, &found, 1, true);
    }

protected:
    // The replies are all there already: waiting would only slow the search.
    void pause_after_answer() const override {}
    void pause_after_failure() const override {}
    // Dropping what waits would drop the fuzzer's replies before they are read.
    int drop_arriving(kes::kesEnergySocket*, unsigned int) const override { return 0; }
};

typedef void (*Operation)(Engine& io_engine);

template <int TYPE>
void report(Engine& io_engine)
{
    kesEnergyDevice device;
    device.Type = static_cast<kes::kesEEnergyDeviceType>(TYPE);
    device.Address = 3;
    device.UniqueID = SERIAL;
    kesString text;
    io_engine.GetDeviceInfo(&device, &text);
}

#define KES_TEXTS(WORD)                          \
    [](Engine& e) {                              \
        kesString t;                             \
        e.Read##WORD##Model(ADDRESS, &t);        \
    },                                           \
        [](Engine& e) {                          \
            kesString t;                         \
            e.Read##WORD##Serial(ADDRESS, &t);   \
        },                                       \
        [](Engine& e) {                          \
            kesString t;                         \
            e.Read##WORD##TestDate(ADDRESS, &t); \
        }

const Operation OPERATIONS[] = {
    // the ten measurement reads
    [](Engine& e) {
        float v, t;
        e.ReadPanelVoltTemp(ADDRESS, &v, &t);
    },
    [](Engine& e) {
        float v, a;
        e.ReadStringVoltAmpere(ADDRESS, &v, &a);
    },
    [](Engine& e) {
        float v, a;
        e.ReadStringOneVoltAmpere(ADDRESS, &v, &a);
    },
    [](Engine& e) {
        float v, a[2];
        e.ReadStringTwoVoltAmpere(ADDRESS, &v, &a[0], &a[1]);
    },
    [](Engine& e) {
        float v, a[3];
        e.ReadStringThreeVoltAmpere(ADDRESS, &v, &a[0], &a[1], &a[2]);
    },
    [](Engine& e) {
        float v, a[4];
        e.ReadStringFourVoltAmpere(ADDRESS, &v, &a[0], &a[1], &a[2], &a[3]);
    },
    [](Engine& e) {
        float v, a;
        e.ReadAlarmVoltAmpere(ADDRESS, &v, &a);
    },
    [](Engine& e) {
        unsigned int c;
        unsigned short p;
        e.ReadPulseCounterData(ADDRESS, &c, &p);
    },
    [](Engine& e) {
        unsigned int c[2];
        unsigned short p[2];
        e.ReadPulseCounterTwoData(ADDRESS, &c[0], &p[0], &c[1], &p[1]);
    },
    [](Engine& e) {
        unsigned int c[5], s[5];
        unsigned short p[5];
        e.ReadPulseCounterFiveData(ADDRESS, &c[0], &p[0], &s[0], &c[1], &p[1], &s[1], &c[2], &p[2], &s[2], &c[3], &p[3],
                                   &s[3], &c[4], &p[4], &s[4]);
    },
    // identity texts of every type, and the data sheet of a panel
    KES_TEXTS(Panel),
    KES_TEXTS(String),
    KES_TEXTS(StringOne),
    KES_TEXTS(StringTwo),
    KES_TEXTS(StringThree),
    KES_TEXTS(StringFour),
    KES_TEXTS(Ambient),
    KES_TEXTS(Alarm),
    KES_TEXTS(PulseCounter),
    KES_TEXTS(PulseCounterTwo),
    KES_TEXTS(PulseCounterFive),
    [](Engine& e) {
        float f[6];
        unsigned int n[2];
        e.ReadPanelFlash(ADDRESS, &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &n[0], &n[1]);
    },
    // alarm device
    [](Engine& e) {
        unsigned char c, s;
        unsigned short p;
        e.ReadAlarmStatus(ADDRESS, &c, &s, &p);
    },
    [](Engine& e) { e.SetupAlarmTuning(ADDRESS, 1, 2, 3); },
    [](Engine& e) {
        unsigned char c, s;
        unsigned short p;
        // no time to wait: one status read after the tuning
        e.ControlAlarmDevice(ADDRESS, 0, 1, 2, 3, &c, &s, &p);
    },
    // addressing and mute
    [](Engine& e) { e.MuteDeviceBySerial(SERIAL); },
    [](Engine& e) { e.SetDeviceAddress(SERIAL, 7); },
    [](Engine& e) {
        kes::kesArray<kesEnergyDevice> devices;
        for (unsigned int i = 0; i < 3; ++i) {
            devices.AddBack(kesEnergyDevice());
            devices.back().UniqueID = SERIAL + i;
        }
        e.SetDevicesAddresses(250, &devices);
    },
    // discovery, one search exchange and the whole searches
    [](Engine& e) { e.Search(false); },
    [](Engine& e) { e.Search(true); },
    [](Engine& e) {
        kesEnergyDevice d;
        e.FindDeviceBySerial(SERIAL, &d);
    },
    [](Engine& e) {
        kes::kesArray<kesEnergyDevice> d;
        e.FindAllDevices(&d);
    },
    [](Engine& e) {
        kes::kesArray<kesEnergyDevice> d;
        e.old_find_all_devices(&d, 3, 50);
    },
    [](Engine& e) {
        kes::kesArray<kesEnergyDevice> d;
        e.find_all_devices_10000(&d, 110);
    },
    // the device report of every type
    report<1>,
    report<2>,
    report<3>,
    report<4>,
    report<5>,
    report<6>,
    report<7>,
    report<8>,
    report<9>,
    report<10>,
    report<11>,
};

#undef KES_TEXTS

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static kes_fuzz::Listener listener;
    // KES_FUZZ_LOG=1 shows the records of one input, to see how far it got.
    static const unsigned int level = getenv("KES_FUZZ_LOG") ? kes::kesErrorOutConsole : 0;
    kes::kesError::Level = level;
    if (size == 0)
        return 0;
    kesEnergySystem::EXECUTION_COUNT = 2;
    kesEnergySystem::MODE = 2;
    const Operation operation = OPERATIONS[data[0] % (sizeof(OPERATIONS) / sizeof(OPERATIONS[0]))];
    ++data;
    --size;
    if (size > MAX_STREAM)
        size = MAX_STREAM;

    Engine engine;
    const int peer = kes_fuzz::ConnectAndServe(
        listener, [&] { return engine.OpenCommunication("127.0.0.1", listener.Port(), 50, 0, 0) == kes::kesErrorOk; },
        data, size);
    operation(engine);
    kes_fuzz::Abort(peer);
    engine.CloseCommunication();
    return 0;
}
