// Discovery: every device answers the keys derived from its hardware serial
// number. A coarse key is asked first; when two devices answer it at once the
// reply is garbled, and its hundred fine keys are asked one by one. A device
// found is muted so that it does not answer again.
#include "kes_enerysystem_private.h"

#include <cstdio>

namespace kes {

namespace {

const unsigned int SHORT_REPLY_LENGTH = 11; // without the device type: a panel
const unsigned int REPLY_LENGTH = 12;

const unsigned short COARSE_KEYS = 100;
const unsigned short FINE_KEYS_PER_COARSE = 100;
const unsigned short FINE_KEYS = COARSE_KEYS * FINE_KEYS_PER_COARSE;

// After a garbled fine reply the tail of the other answers is read away.
const unsigned int COLLISION_DRAIN_TIMEOUT_MS = 500;
const unsigned int COLLISION_DRAIN_MAX_BYTES = 256;

// Whether the last search added a device that was not in the list yet. A
// serial number seen before is a device that could not be muted: the copy
// is taken out again.
bool took_new_device(kesArray<kesEnergyDevice>* io_devices, size_t i_before, bool i_bFine, unsigned short i_usKey)
{
    if (io_devices->size() <= i_before) {
        kesString text;
        text.SetFormat(128, "An answer to the %s key %u named no known device type", i_bFine ? "fine" : "coarse",
                       static_cast<unsigned int>(i_usKey));
        KES_LOG_IN(kesErrorWarning, text, "FindAllDevices");
        return false;
    }
    const kesEnergyDevice& found = io_devices->back();
    for (size_t i = 0; i + 1 < io_devices->size(); ++i) {
        if ((*io_devices)[i] == found) {
            kesString text;
            text.SetFormat(128, "Device %lu answers the %s key %u again: it was not muted",
                           static_cast<unsigned long>(found.UniqueID), i_bFine ? "fine" : "coarse",
                           static_cast<unsigned int>(i_usKey));
            io_devices->pop_back();
            KES_LOG_IN(kesErrorWarning, text, "FindAllDevices");
            return false;
        }
    }
    return true;
}

const char* const CHANNEL_LOST = "Communication lost during the search";

kesString describe_search(kesEExchangeStep i_eStep, const kesExchange& i_exchange)
{
    kesString text;
    if (i_eStep == kesStepSend)
        text = "Can not send socket data";
    else if (i_eStep == kesStepLength)
        text.SetFormat(128, "Can not receive 11 bytes:(%i at module:%u)", i_exchange.received,
                       static_cast<unsigned int>(i_exchange.subject));
    return text;
}

// A garbled answer is a collision, told by the fine search alone; a reply of
// another length is only a notice.
const kesLadder SEARCH_LADDER = {
    false,      {kesPauseNone, kesPauseNone, kesPauseFailure, kesPauseNone, kesPauseNone, kesPauseNone},
    true,       0,
    kesErrorOk, &describe_search};

// The garbled answer and the tail of the other answers behind it.
void report_collision(kesEnergySocket* io_pChannel, const kesExchange& i_exchange)
{
    kesString text("COLLISION [");
    for (int i = 0; i < i_exchange.received; ++i)
        text.AddFormat(8, "%.2X ", i_exchange.reply[i]);
    text += "]";
    unsigned int saved = io_pChannel->GetReceiveTimeOut();
    io_pChannel->SetReceiveTimeOut(COLLISION_DRAIN_TIMEOUT_MS);
    unsigned char extra = 0;
    int got = 0;
    for (unsigned int i = 0; i < COLLISION_DRAIN_MAX_BYTES && io_pChannel->Receive(&extra, 1, &got) == 1; ++i)
        text.AddFormat(8, "[%.2X]", extra);
    io_pChannel->SetReceiveTimeOut(saved);
    KES_LOG_IN(kesErrorFailed, text, i_exchange.function);
}

// The short form, without the device type, is a panel's.
kesEnergyDevice device_of(const unsigned char* i_pReply, unsigned int i_uiLength)
{
    kesEnergyDevice device;
    const unsigned char* serial = i_pReply + (i_uiLength == REPLY_LENGTH ? 5 : 4);
    device.Type = i_uiLength == REPLY_LENGTH ? static_cast<kesEEnergyDeviceType>(i_pReply[2]) : kesEnergyDevicePanel;
    device.UniqueID = serial_at(serial);
    device.Address = serial[4];
    return device;
}

} // namespace

int kesEnergySystem::search(kesEnergySocket* io_pChannel, bool i_bFine, unsigned short i_usSearchKey,
                            kesArray<kesEnergyDevice>* o_devices, int i_iRetries, bool i_bNotify)
{
    unsigned char frame[6] = {BUS_UNIT, i_bFine ? FINE_SEARCH.request : COARSE_SEARCH.request,
                              static_cast<unsigned char>(i_usSearchKey >> 8),
                              static_cast<unsigned char>(i_usSearchKey & 0xFF)};
    put_crc(frame, sizeof(frame));
    unsigned char reply[REPLY_LENGTH];
    kesExchange exchange(frame, sizeof(frame), reply, sizeof(reply), i_usSearchKey,
                         i_bFine ? "read_all_device_with_10000" : "read_all_device_with_100");
    exchange.shortestReply = SHORT_REPLY_LENGTH;
    exchange.retries = i_iRetries;
    transfer(io_pChannel, SEARCH_LADDER, exchange);
    switch (exchange.step) {
    case kesStepAccepted:
        break;
    case kesStepLength:
        return SearchOtherLength;
    case kesStepCrc:
        if (i_bFine)
            report_collision(io_pChannel, exchange);
        return SearchCollision;
    default:
        return SearchSilent;
    }
    if (reply[0] != BUS_UNIT || reply[1] != (i_bFine ? FINE_SEARCH.reply : COARSE_SEARCH.reply))
        return SearchSilent;

    const kesEnergyDevice device = device_of(reply, static_cast<unsigned int>(exchange.received));
    if (device.Type < kesEnergyDevicePanel || device.Type > kesEnergyDeviceStringThree)
        return exchange.received;
    o_devices->AddBack(device);
    if (MODE == 2) {
        // A device that stays unmuted is caught by the caller when it answers
        // again.
        auto mute = [&] { return mute_device(io_pChannel, device.UniqueID); };
        attempt_up_to(mute);
    }
    if (i_bNotify)
        OnDeviceFound(&device);
    return exchange.received;
}

int kesEnergySystem::read_all_device_with_100(kesEnergySocket* io_pChannel, unsigned short i_usSearchKey,
                                              kesArray<kesEnergyDevice>* o_devices, int i_iRetries, bool i_bNotify)
{
    return search(io_pChannel, false, i_usSearchKey, o_devices, i_iRetries, i_bNotify);
}

int kesEnergySystem::read_all_device_with_10000(kesEnergySocket* io_pChannel, unsigned short i_usSearchKey,
                                                kesArray<kesEnergyDevice>* o_devices, int i_iRetries, bool i_bNotify)
{
    return search(io_pChannel, true, i_usSearchKey, o_devices, i_iRetries, i_bNotify);
}

kesEError kesEnergySystem::check_find_arguments(kesArray<kesEnergyDevice>* o_devices, const char* i_szFunction)
{
    if (!m_oSocket.IsOpen())
        return KES_LOG_IN(kesErrorFailed, CHANNEL_CLOSED, i_szFunction);
    if (!o_devices)
        return KES_LOG_IN(kesErrorInvalidArgument, "o_devices == 0", i_szFunction);
    o_devices->clear();
    return kesErrorOk;
}

bool kesEnergySystem::search_key_until_silent(bool i_bFine, unsigned short i_usSearchKey,
                                              kesArray<kesEnergyDevice>* o_devices, int* o_pLast)
{
    bool found = false;
    for (unsigned int round = 0; round < MAX_ROUNDS_PER_KEY; ++round) {
        size_t before = o_devices->size();
        *o_pLast = search(&m_oSocket, i_bFine, i_usSearchKey, o_devices, 0, true);
        if (*o_pLast < 0)
            return found;
        if (!took_new_device(o_devices, before, i_bFine, i_usSearchKey)) {
            *o_pLast = SearchSilent;
            return found;
        }
        found = true;
    }
    kesString text;
    text.SetFormat(128, "The %s key %u still answers after %u devices: left", i_bFine ? "fine" : "coarse",
                   static_cast<unsigned int>(i_usSearchKey), MAX_ROUNDS_PER_KEY);
    KES_LOG_IN(kesErrorWarning, text, "FindAllDevices");
    *o_pLast = SearchSilent;
    return found;
}

bool kesEnergySystem::search_fine_keys(unsigned short i_usCoarseKey, kesArray<kesEnergyDevice>* o_devices,
                                       bool i_bReportCollisions)
{
    bool found = false;
    for (unsigned short j = 0; j < FINE_KEYS_PER_COARSE && m_oSocket.IsOpen(); ++j) {
        unsigned short key = static_cast<unsigned short>(i_usCoarseKey + COARSE_KEYS * j);
        int last = SearchSilent;
        if (search_key_until_silent(true, key, o_devices, &last))
            found = true;
        if (last == SearchCollision && i_bReportCollisions) {
            kesString text("This should never happen! ");
            text.AddFormat(128, "i=[%i]j=[%i]s=[%i]", i_usCoarseKey, j, key);
            KES_LOG_IN(kesErrorFailed, text, "FindAllDevices");
        }
    }
    return found;
}

kesEError kesEnergySystem::FindAllDevices(kesArray<kesEnergyDevice>* o_devices)
{
    kesEError result = check_find_arguments(o_devices, __func__);
    if (result != kesErrorOk)
        return result;
    if (MODE != 2) {
        if (EnableAllDeviceFind() != kesErrorOk)
            KES_LOG(kesErrorFailed, "Can not enable devices to answer to find request");
        return old_find_all_devices(o_devices, 3, 50);
    }
    result = EnableAllDeviceFind();
    if (result != kesErrorOk)
        return KES_LOG(result, "Can not enable devices to answer to find request");

    for (unsigned short i = 0; i < COARSE_KEYS; ++i) {
        // A gateway that went away would make every key silent.
        if (!m_oSocket.IsOpen())
            return KES_LOG(kesErrorFailed, CHANNEL_LOST);
        // A reply of another length may hide several answers: after its fine
        // keys brought devices, the coarse key is asked again.
        for (unsigned int round = 0; round < MAX_ROUNDS_PER_KEY; ++round) {
            int last = SearchSilent;
            search_key_until_silent(false, i, o_devices, &last);
            if (last == SearchCollision) {
                search_fine_keys(i, o_devices, true);
                break;
            }
            if (last != SearchOtherLength || !search_fine_keys(i, o_devices, false))
                break;
        }
    }
    return kesErrorOk;
}

void kesEnergySystem::old_fine_scan(unsigned short i_usCoarseKey, kesArray<kesEnergyDevice>* o_devices, int i_iRetries,
                                    int i_iChecks)
{
    for (unsigned short j = 0; j < FINE_KEYS_PER_COARSE && m_oSocket.IsOpen(); ++j) {
        unsigned short key = static_cast<unsigned short>(i_usCoarseKey + COARSE_KEYS * j);
        int first = read_all_device_with_10000(&m_oSocket, key, o_devices, i_iRetries, true);
        if (first == SearchSilent || first == SearchCollision)
            continue;
        for (int c = 0; c < i_iChecks; ++c) {
            kesArray<kesEnergyDevice> scratch;
            if (read_all_device_with_10000(&m_oSocket, key, &scratch, i_iRetries, false) != first) {
                printf("Probably Millions Request:%i\n", key);
                break;
            }
        }
    }
}

kesEError kesEnergySystem::old_find_all_devices(kesArray<kesEnergyDevice>* o_devices, int i_iRetries, int i_iChecks)
{
    kesEError result = check_find_arguments(o_devices, __func__);
    if (result != kesErrorOk)
        return result;
    for (unsigned short i = 0; i < COARSE_KEYS; ++i) {
        if (!m_oSocket.IsOpen())
            return KES_LOG(kesErrorFailed, CHANNEL_LOST);
        int first = read_all_device_with_100(&m_oSocket, i, o_devices, i_iRetries, true);
        if (first == SearchSilent)
            continue;
        bool single = first != SearchCollision;
        // Devices that cannot be muted answer every time: one that gives the
        // same result again and again is alone on its key.
        for (int c = 0; single && c < i_iChecks; ++c) {
            kesArray<kesEnergyDevice> scratch;
            single = read_all_device_with_100(&m_oSocket, i, &scratch, i_iRetries, false) == first;
        }
        if (!single)
            old_fine_scan(i, o_devices, i_iRetries, i_iChecks);
    }
    o_devices->Unique(nullptr, nullptr);
    return kesErrorOk;
}

kesEError kesEnergySystem::find_all_devices_10000(kesArray<kesEnergyDevice>* o_devices, int i_iCount)
{
    kesEError result = check_find_arguments(o_devices, __func__);
    if (result != kesErrorOk)
        return result;
    // Fine keys end at 9999.
    int count = i_iCount < FINE_KEYS ? i_iCount : FINE_KEYS;
    for (int key = 0; key < count; ++key) {
        if (!m_oSocket.IsOpen())
            return KES_LOG(kesErrorFailed, CHANNEL_LOST);
        read_all_device_with_10000(&m_oSocket, static_cast<unsigned short>(key), o_devices, 1, true);
    }
    o_devices->Unique(nullptr, nullptr);
    return kesErrorOk;
}

bool kesEnergySystem::FindDeviceBySerial(unsigned int i_uiSerial, kesEnergyDevice* io_pDevice)
{
    if (!m_oSocket.IsOpen()) {
        KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
        return false;
    }
    if (!io_pDevice) {
        KES_LOG(kesErrorInvalidArgument, "io_pDevice == 0");
        return false;
    }
    kesArray<kesEnergyDevice> found;
    read_all_device_with_10000(&m_oSocket, static_cast<unsigned short>(i_uiSerial & 0xFFFF), &found, 0, true);
    if (found.empty())
        return false;
    *io_pDevice = found.front();
    return true;
}

} // namespace kes
