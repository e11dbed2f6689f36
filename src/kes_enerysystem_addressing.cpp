// The bus's own frames that reach a device by its hardware serial number:
// enable the search, mute, give a module number. All devices hear unit 0xFF.
#include "kes_enerysystem.h"

#include "kes_modbusrtu.h"
#include "kes_osthread.h"

namespace kes {

namespace {

const unsigned char BUS_UNIT = 0xFF;
const unsigned char FUNCTION_SET_ADDRESS = 0x07;
const unsigned char FUNCTION_SET_ADDRESS_REPLY = 0x08;
const unsigned char FUNCTION_MUTE = 0x0C;
const unsigned char FUNCTION_MUTE_REPLY = 0x0D;
const unsigned char FUNCTION_ENABLE_SEARCH = 0x0E;

const unsigned int ENABLE_SETTLE_MS = 15;
// A device writes its new number to memory before it answers.
const unsigned int SET_ADDRESS_TIMEOUT_MS = 1000;
const unsigned int MAX_BUS_ADDRESS_SUM = 25500;
const unsigned int MAX_MODULE_NUMBER = 255;

void put_serial(unsigned char* o_pBytes, unsigned int i_uiSerial)
{
    o_pBytes[0] = static_cast<unsigned char>(i_uiSerial >> 24);
    o_pBytes[1] = static_cast<unsigned char>(i_uiSerial >> 16);
    o_pBytes[2] = static_cast<unsigned char>(i_uiSerial >> 8);
    o_pBytes[3] = static_cast<unsigned char>(i_uiSerial);
}

void put_crc(unsigned char* io_pFrame, unsigned int i_uiSize)
{
    unsigned short crc = kesModbusRtuCrc(io_pFrame, i_uiSize - 2);
    io_pFrame[i_uiSize - 2] = static_cast<unsigned char>(crc & 0xFF);
    io_pFrame[i_uiSize - 1] = static_cast<unsigned char>(crc >> 8);
}

bool has_valid_crc(const unsigned char* i_pFrame, unsigned int i_uiSize)
{
    unsigned short crc = kesModbusRtuCrc(i_pFrame, i_uiSize - 2);
    return i_pFrame[i_uiSize - 2] == (crc & 0xFF) && i_pFrame[i_uiSize - 1] == (crc >> 8);
}

// Up to EXECUTION_COUNT attempts; the code of the last one, 0 when there
// was none.
template <class Attempt>
kesEError try_times(Attempt& io_attempt)
{
    kesEError last = kesErrorOk;
    for (unsigned int i = 0; i < kesEnergySystem::EXECUTION_COUNT; ++i) {
        last = io_attempt();
        if (last == kesErrorOk)
            break;
    }
    return last;
}

kesEError report(kesEError i_eCode, const kesString& i_sText, const char* i_szFunction, int i_iLine)
{
    return kesErrorLog(kesBuildErrorLocation(i_eCode, i_sText, __FILE__, i_szFunction, i_iLine));
}

} // namespace

kesEError kesEnergySystem::enable_alldevices(kesEnergySocket* io_pChannel)
{
    unsigned char frame[6] = {BUS_UNIT, FUNCTION_ENABLE_SEARCH, 'O', 'K', 0, 0};
    put_crc(frame, sizeof(frame));
    if (io_pChannel->Send(frame, sizeof(frame)) == static_cast<int>(sizeof(frame))) {
        // No reply: give the devices time to take it in.
        kesOsThread::SleepMs(ENABLE_SETTLE_MS);
        return kesErrorOk;
    }
    pause_after_failure();
    return report(kesErrorFailed, "Can not send socket data", __func__, __LINE__);
}

kesEError kesEnergySystem::mute_device(kesEnergySocket* io_pChannel, unsigned int i_uiSerial)
{
    unsigned char frame[8] = {BUS_UNIT, FUNCTION_MUTE};
    put_serial(frame + 2, i_uiSerial);
    put_crc(frame, sizeof(frame));
    if (io_pChannel->Send(frame, sizeof(frame)) != static_cast<int>(sizeof(frame))) {
        pause_after_answer();
        return report(kesErrorFailed, "Can not send socket data", __func__, __LINE__);
    }
    unsigned char reply[8];
    int received = 0;
    if (io_pChannel->Receive(reply, sizeof(reply), &received) == -2) {
        pause_after_failure();
        return report(kesErrorFailed, "Timeout", __func__, __LINE__);
    }
    if (received != static_cast<int>(sizeof(reply))) {
        pause_after_failure();
        kesString text("Can not receive all data bytes:");
        text += kesString::FromInt(received);
        text += " at serial:";
        text += kesString::FromULong(i_uiSerial);
        return report(kesErrorFailed, text, __func__, __LINE__);
    }
    if (!has_valid_crc(reply, sizeof(reply))) {
        pause_after_failure();
        return report(kesErrorFailed, "Check sum invalid", __func__, __LINE__);
    }
    pause_after_answer();
    if (reply[0] == BUS_UNIT && reply[1] == FUNCTION_MUTE_REPLY)
        return kesErrorOk;
    return report(kesErrorFailed, "Mute failed", __func__, __LINE__);
}

kesEError kesEnergySystem::set_address_by_serial(kesEnergySocket* io_pChannel, unsigned int i_uiSerial,
                                                 unsigned char i_ucAddress)
{
    unsigned char frame[9] = {BUS_UNIT, FUNCTION_SET_ADDRESS};
    put_serial(frame + 2, i_uiSerial);
    frame[6] = i_ucAddress;
    put_crc(frame, sizeof(frame));
    if (io_pChannel->Send(frame, sizeof(frame)) != static_cast<int>(sizeof(frame)))
        return report(kesErrorFailed, "Can not send data", __func__, __LINE__);

    unsigned int saved = io_pChannel->GetReceiveTimeOut();
    if (!io_pChannel->SetReceiveTimeOut(SET_ADDRESS_TIMEOUT_MS))
        return report(kesErrorFailed, "Can not set reveice timeout", __func__, __LINE__);
    unsigned char reply[8];
    int received = 0;
    int result = io_pChannel->Receive(reply, sizeof(reply), &received);
    if (!io_pChannel->SetReceiveTimeOut(saved))
        return report(kesErrorFailed, "Can not set reveice timeout", __func__, __LINE__);

    if (result == -2) {
        pause_after_failure();
        return report(kesErrorFailed, "Timeout response not received...", __func__, __LINE__);
    }
    if (received != static_cast<int>(sizeof(reply))) {
        pause_after_failure();
        kesString text;
        text.SetFormat(128, "Received %i bytes but requested %u at address:%u", received,
                       static_cast<unsigned int>(sizeof(reply)), static_cast<unsigned int>(i_ucAddress));
        return report(kesErrorFailed, text, __func__, __LINE__);
    }
    if (!has_valid_crc(reply, sizeof(reply))) {
        pause_after_failure();
        return report(kesErrorFailed, "Checksum do not match", __func__, __LINE__);
    }
    pause_after_answer();
    // A refusal is left for the caller to retry and report.
    return reply[1] == FUNCTION_SET_ADDRESS_REPLY ? kesErrorOk : kesErrorWarning;
}

kesEError kesEnergySystem::EnableAllDeviceFind()
{
    if (!m_oSocket.IsOpen())
        return report(kesErrorFailed, "Communication is closed! Call OpenCommunication(...)", __func__, __LINE__);
    auto attempt = [&] { return enable_alldevices(&m_oSocket); };
    return try_times(attempt);
}

kesEError kesEnergySystem::MuteDeviceBySerial(unsigned int i_uiSerial)
{
    if (MODE != 2)
        return kesErrorOk;
    if (!m_oSocket.IsOpen())
        return report(kesErrorFailed, "Communication is closed! Call OpenCommunication(...)", __func__, __LINE__);
    auto attempt = [&] { return mute_device(&m_oSocket, i_uiSerial); };
    kesEError last = try_times(attempt);
    if (last != kesErrorOk)
        return report(last, "Can not mute device by serial", __func__, __LINE__);
    return kesErrorOk;
}

kesEError kesEnergySystem::SetDeviceAddress(unsigned int i_uiSerial, unsigned char i_ucAddress)
{
    if (!m_oSocket.IsOpen())
        return report(kesErrorFailed, "Communication is closed! Call OpenCommunication(...)", __func__, __LINE__);
    if (i_ucAddress < 1 || i_ucAddress > 100)
        return report(kesErrorInvalidArgument, "Can not set address outside range [1 -- 100]", __func__, __LINE__);
    auto attempt = [&] { return set_address_by_serial(&m_oSocket, i_uiSerial, i_ucAddress); };
    kesEError last = try_times(attempt);
    if (last != kesErrorOk)
        return report(last, "Can not set address", __func__, __LINE__);
    return kesErrorOk;
}

kesEError kesEnergySystem::SetDevicesAddresses(unsigned char i_ucOffset, kesArray<kesEnergyDevice>* io_devices)
{
    if (!m_oSocket.IsOpen())
        return report(kesErrorFailed, "Communication is closed! Call OpenCommunication(...)", __func__, __LINE__);
    if (!io_devices)
        return report(kesErrorInvalidArgument, "io_devices == 0", __func__, __LINE__);
    if (i_ucOffset + io_devices->size() > MAX_BUS_ADDRESS_SUM)
        return report(kesErrorInvalidArgument, "Offset + i_devices->GetCount() > 25500", __func__, __LINE__);
    unsigned int number = i_ucOffset ? i_ucOffset : 1;
    // A module number is one byte: a list that would wrap round to 0 and give
    // two devices one number is refused before anything is sent.
    if (!io_devices->empty() && number + io_devices->size() - 1 > MAX_MODULE_NUMBER) {
        kesString text;
        text.SetFormat(128, "Can not number %u devices from %u: module numbers end at %u",
                       static_cast<unsigned int>(io_devices->size()), number, MAX_MODULE_NUMBER);
        return report(kesErrorInvalidArgument, text, __func__, __LINE__);
    }
    if (EXECUTION_COUNT == 0)
        return kesErrorOk;
    for (size_t i = 0; i < io_devices->size(); ++i) {
        kesEnergyDevice& device = (*io_devices)[i];
        const unsigned char address = static_cast<unsigned char>(number);
        auto attempt = [&] { return set_address_by_serial(&m_oSocket, device.UniqueID, address); };
        kesEError last = try_times(attempt);
        if (last != kesErrorOk) {
            kesString text;
            text.SetFormat(128, "Type 0x%.2X with Address 0x%.2X and UniqueID %lu",
                           static_cast<unsigned int>(device.Type), static_cast<unsigned int>(device.Address),
                           static_cast<unsigned long>(device.UniqueID));
            return report(last, text, __func__, __LINE__);
        }
        device.Address = address;
        ++number;
        OnDeviceAddressChanged(&device);
    }
    return kesErrorOk;
}

} // namespace kes
