// The bus's own frames that reach a device by its hardware serial number:
// enable the search, mute, give a module number. All devices hear unit 0xFF.
#include "kes_enerysystem_private.h"

#include "kes_osthread.h"

namespace kes {

namespace {

const unsigned int ENABLE_SETTLE_MS = 15;
// A device writes its new number to memory before it answers.
const unsigned int SET_ADDRESS_TIMEOUT_MS = 1000;
const unsigned int MAX_BUS_ADDRESS_SUM = 25500;
const unsigned int MAX_MODULE_NUMBER = 255;
const unsigned int REPLY_LENGTH = 8;

const char* const SEND_FAILURE = "Can not send socket data";

kesString describe_enable(kesEExchangeStep i_eStep, const kesExchange&)
{
    return kesString(i_eStep == kesStepSend ? SEND_FAILURE : "");
}

kesString describe_mute(kesEExchangeStep i_eStep, const kesExchange& i_exchange)
{
    switch (i_eStep) {
    case kesStepSend:
        return kesString(SEND_FAILURE);
    case kesStepTimeOut:
        return kesString("Timeout");
    case kesStepLength:
        return kesString("Can not receive all data bytes:") + kesString::FromInt(i_exchange.received) +
               with_address(" at serial:", i_exchange.subject);
    case kesStepCrc:
        return kesString("Check sum invalid");
    default:
        return kesString();
    }
}

kesString describe_set_address(kesEExchangeStep i_eStep, const kesExchange& i_exchange)
{
    kesString text;
    switch (i_eStep) {
    case kesStepSend:
        return kesString("Can not send data");
    case kesStepTimeOut:
        return kesString("Timeout response not received...");
    case kesStepLength:
        text.SetFormat(128, "Received %i bytes but requested %u at address:%u", i_exchange.received,
                       i_exchange.replyLength, static_cast<unsigned int>(i_exchange.subject));
        return text;
    case kesStepCrc:
        return kesString("Checksum do not match");
    default:
        return text;
    }
}

// Pauses after: a short send, a time-out, a reply of another length, a bad
// CRC, (silence), an accepted reply.
const kesLadder ENABLE_LADDER = {
    false,          {kesPauseFailure, kesPauseNone, kesPauseNone, kesPauseNone, kesPauseNone, kesPauseNone},
    false,          0,
    kesErrorFailed, &describe_enable};
const kesLadder MUTE_LADDER = {
    false,          {kesPauseAnswer, kesPauseFailure, kesPauseFailure, kesPauseFailure, kesPauseNone, kesPauseAnswer},
    false,          0,
    kesErrorFailed, &describe_mute};
const kesLadder SET_ADDRESS_LADDER = {
    false,          {kesPauseNone, kesPauseFailure, kesPauseFailure, kesPauseFailure, kesPauseNone, kesPauseAnswer},
    false,          SET_ADDRESS_TIMEOUT_MS,
    kesErrorFailed, &describe_set_address};

} // namespace

kesEError kesEnergySystem::enable_alldevices(kesEnergySocket* io_pChannel)
{
    unsigned char frame[6] = {BUS_UNIT, FUNCTION_ENABLE_SEARCH, 'O', 'K', 0, 0};
    put_crc(frame, sizeof(frame));
    kesExchange exchange(frame, sizeof(frame), nullptr, 0, 0, __func__);
    if (kesEError failed = transfer(io_pChannel, ENABLE_LADDER, exchange))
        return failed;
    // No reply: give the devices time to take it in.
    kesOsThread::SleepMs(ENABLE_SETTLE_MS);
    return kesErrorOk;
}

kesEError kesEnergySystem::mute_device(kesEnergySocket* io_pChannel, unsigned int i_uiSerial)
{
    unsigned char frame[8] = {BUS_UNIT, MUTE.request};
    put_serial(frame + 2, i_uiSerial);
    put_crc(frame, sizeof(frame));
    unsigned char reply[REPLY_LENGTH];
    kesExchange exchange(frame, sizeof(frame), reply, sizeof(reply), i_uiSerial, __func__);
    if (kesEError failed = transfer(io_pChannel, MUTE_LADDER, exchange))
        return failed;
    if (reply[0] == BUS_UNIT && reply[1] == MUTE.reply)
        return kesErrorOk;
    return KES_LOG(kesErrorFailed, "Mute failed");
}

kesEError kesEnergySystem::set_address_by_serial(kesEnergySocket* io_pChannel, unsigned int i_uiSerial,
                                                 unsigned char i_ucAddress)
{
    unsigned char frame[9] = {BUS_UNIT, SET_ADDRESS.request};
    put_serial(frame + 2, i_uiSerial);
    frame[6] = i_ucAddress;
    put_crc(frame, sizeof(frame));
    unsigned char reply[REPLY_LENGTH];
    kesExchange exchange(frame, sizeof(frame), reply, sizeof(reply), i_ucAddress, __func__);
    if (kesEError failed = transfer(io_pChannel, SET_ADDRESS_LADDER, exchange))
        return failed;
    // A refusal is left for the caller to retry and report.
    return reply[1] == SET_ADDRESS.reply ? kesErrorOk : kesErrorWarning;
}

kesEError kesEnergySystem::EnableAllDeviceFind()
{
    if (!m_oSocket.IsOpen())
        return KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
    auto attempt = [&] { return enable_alldevices(&m_oSocket); };
    return attempt_up_to(attempt);
}

kesEError kesEnergySystem::MuteDeviceBySerial(unsigned int i_uiSerial)
{
    if (MODE != 2)
        return kesErrorOk;
    if (!m_oSocket.IsOpen())
        return KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
    auto attempt = [&] { return mute_device(&m_oSocket, i_uiSerial); };
    kesEError last = attempt_up_to(attempt);
    if (last != kesErrorOk)
        return KES_LOG(last, "Can not mute device by serial");
    return kesErrorOk;
}

kesEError kesEnergySystem::SetDeviceAddress(unsigned int i_uiSerial, unsigned char i_ucAddress)
{
    if (!m_oSocket.IsOpen())
        return KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
    if (i_ucAddress < 1 || i_ucAddress > 100)
        return KES_LOG(kesErrorInvalidArgument, "Can not set address outside range [1 -- 100]");
    auto attempt = [&] { return set_address_by_serial(&m_oSocket, i_uiSerial, i_ucAddress); };
    kesEError last = attempt_up_to(attempt);
    if (last != kesErrorOk)
        return KES_LOG(last, "Can not set address");
    return kesErrorOk;
}

kesEError kesEnergySystem::SetDevicesAddresses(unsigned char i_ucOffset, kesArray<kesEnergyDevice>* io_devices)
{
    if (!m_oSocket.IsOpen())
        return KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
    if (!io_devices)
        return KES_LOG(kesErrorInvalidArgument, "io_devices == 0");
    if (i_ucOffset + io_devices->size() > MAX_BUS_ADDRESS_SUM)
        return KES_LOG(kesErrorInvalidArgument, "Offset + i_devices->GetCount() > 25500");
    unsigned int number = i_ucOffset ? i_ucOffset : 1;
    // A module number is one byte: a list that would wrap round to 0 and give
    // two devices one number is refused before anything is sent.
    if (!io_devices->empty() && number + io_devices->size() - 1 > MAX_MODULE_NUMBER) {
        kesString text;
        text.SetFormat(128, "Can not number %u devices from %u: module numbers end at %u",
                       static_cast<unsigned int>(io_devices->size()), number, MAX_MODULE_NUMBER);
        return KES_LOG(kesErrorInvalidArgument, text);
    }
    for (size_t i = 0; i < io_devices->size(); ++i) {
        kesEnergyDevice& device = (*io_devices)[i];
        // The numbering is part of the attempt: with no attempts at all the
        // list stays as it was.
        auto attempt = [&] {
            const unsigned char address = static_cast<unsigned char>(number);
            kesEError result = set_address_by_serial(&m_oSocket, device.UniqueID, address);
            if (result == kesErrorOk) {
                device.Address = address;
                ++number;
                OnDeviceAddressChanged(&device);
            }
            return result;
        };
        kesEError last = attempt_up_to(attempt);
        if (last != kesErrorOk) {
            kesString text;
            text.SetFormat(128, "Type 0x%.2X with Address 0x%.2X and UniqueID %lu",
                           static_cast<unsigned int>(device.Type), static_cast<unsigned int>(device.Address),
                           static_cast<unsigned long>(device.UniqueID));
            return KES_LOG(last, text);
        }
    }
    return kesErrorOk;
}

} // namespace kes
