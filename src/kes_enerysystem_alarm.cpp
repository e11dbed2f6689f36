// Alarm device: its check cycle, started by the one Modbus write of the bus.
#include "kes_enerysystem_private.h"

#include "kes_osthread.h"
#include "kes_time.h"

namespace kes {

namespace {

const unsigned short ALARM_STATUS_OFFSET = 2;
const unsigned short ALARM_STATUS_REGISTERS = 2;
const unsigned short ALARM_TUNING_REGISTERS = 4;
// The first register of the tuning write tells the device to start a cycle.
const unsigned short ALARM_TUNING_START = 1;
const unsigned int ALARM_POLL_PAUSE_MS = 10;

struct kesAlarmStatusContext {
    unsigned char* cycle;
    unsigned char* status;
    unsigned short* power;
};

kesEError decode_alarm_status(const unsigned char* i_pData, unsigned int, void* io_pContext)
{
    const kesAlarmStatusContext* context = static_cast<const kesAlarmStatusContext*>(io_pContext);
    // Status and power mean something only once the cycle has ended.
    if (i_pData[0] != 0) {
        if (context->cycle)
            *context->cycle = kesEnergyAlarmCycleInProgress;
        return kesErrorOk;
    }
    if (context->cycle)
        *context->cycle = kesEnergyAlarmCycleTerminated;
    if (context->status)
        *context->status = i_pData[1];
    if (context->power)
        *context->power = static_cast<unsigned short>(register_at(i_pData, 1));
    return kesErrorOk;
}

kesEError check_written_count(const unsigned char* i_pData, unsigned int, void*)
{
    unsigned int written = register_at(i_pData, 0);
    if (written == ALARM_TUNING_REGISTERS)
        return kesErrorOk;
    kesString text;
    text.SetFormat(64, "Write request :%u Written :%u", static_cast<unsigned int>(ALARM_TUNING_REGISTERS), written);
    return KES_LOG_IN(kesErrorFailed, text, "setup_alarm_device_tuning");
}

} // namespace

kesEError kesEnergySystem::read_response_alarm_status(kesEnergySocket* io_pChannel, unsigned short i_usAddress,
                                                      unsigned char* o_pCycle, unsigned char* o_pStatus,
                                                      unsigned short* o_pPower)
{
    kesModbusRtuReadHoldingRegistersFrame request;
    request.SetUnitID(static_cast<unsigned char>(kesEnergyDeviceAlarm));
    request.SetRegisters(static_cast<unsigned short>(i_usAddress + ALARM_STATUS_OFFSET), ALARM_STATUS_REGISTERS);
    kesAlarmStatusContext context = {o_pCycle, o_pStatus, o_pPower};
    return exchange(io_pChannel, request.GetModbusRtuFramePtr(), true, i_usAddress, 2u * ALARM_STATUS_REGISTERS + 5u,
                    2u * ALARM_STATUS_REGISTERS, &decode_alarm_status, &context, __func__);
}

kesEError kesEnergySystem::ReadAlarmStatus(unsigned short i_usAddress, unsigned char* o_pCycle,
                                           unsigned char* o_pStatus, unsigned short* o_pPower)
{
    auto attempt = [&] { return read_response_alarm_status(&m_oSocket, i_usAddress, o_pCycle, o_pStatus, o_pPower); };
    return execute(attempt, "Can not read alarm status at address:", i_usAddress, __func__);
}

kesEError kesEnergySystem::setup_alarm_device_tuning(kesEnergySocket* io_pChannel, unsigned short i_usAddress,
                                                     unsigned short i_usTuning1, unsigned short i_usTuning2,
                                                     unsigned short i_usTuning3)
{
    const unsigned short values[ALARM_TUNING_REGISTERS] = {ALARM_TUNING_START, i_usTuning1, i_usTuning2, i_usTuning3};
    unsigned char data[2 * ALARM_TUNING_REGISTERS];
    for (unsigned int i = 0; i < ALARM_TUNING_REGISTERS; ++i) {
        data[2 * i] = static_cast<unsigned char>(values[i] >> 8);
        data[2 * i + 1] = static_cast<unsigned char>(values[i] & 0xFF);
    }
    kesModbusRtuWriteMultipleRegistersFrame request;
    request.SetUnitID(static_cast<unsigned char>(kesEnergyDeviceAlarm));
    request.SetRegisters(i_usAddress, ALARM_TUNING_REGISTERS);
    request.SetData(data, sizeof(data));
    // The count that Send gives is not looked at: the reply tells whether the
    // write arrived.
    return exchange(io_pChannel, request.GetModbusRtuFramePtr(), false, i_usAddress, 8, 2, &check_written_count,
                    nullptr, __func__);
}

kesEError kesEnergySystem::SetupAlarmTuning(unsigned short i_usAddress, unsigned short i_usTuning1,
                                            unsigned short i_usTuning2, unsigned short i_usTuning3)
{
    auto attempt = [&] {
        return setup_alarm_device_tuning(&m_oSocket, i_usAddress, i_usTuning1, i_usTuning2, i_usTuning3);
    };
    return execute(attempt, "Can not set up alarm at address:", i_usAddress, __func__);
}

kesEError kesEnergySystem::ControlAlarmDevice(unsigned short i_usAddress, unsigned int i_uiTimeOut,
                                              unsigned short i_usTuning1, unsigned short i_usTuning2,
                                              unsigned short i_usTuning3, unsigned char* o_pCycle,
                                              unsigned char* o_pStatus, unsigned short* o_pPower)
{
    if (!m_oSocket.IsOpen())
        return KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
    if (!o_pCycle)
        return KES_LOG(kesErrorInvalidArgument, "o_pCycle == 0");
    if (SetupAlarmTuning(i_usAddress, i_usTuning1, i_usTuning2, i_usTuning3) != kesErrorOk)
        return KES_LOG(kesErrorFailed, with_address("Can not setup alarm at address:", i_usAddress));
    unsigned int elapsed = 0;
    for (;;) {
        unsigned int start = kesTime::GetTime();
        if (ReadAlarmStatus(i_usAddress, o_pCycle, o_pStatus, o_pPower) != kesErrorOk)
            return KES_LOG(kesErrorFailed, with_address("Can not read alarm status at address:", i_usAddress));
        if (*o_pCycle == kesEnergyAlarmCycleTerminated)
            return kesErrorOk;
        kesOsThread::SleepMs(ALARM_POLL_PAUSE_MS);
        elapsed += kesTime::GetTime() - start;
        if (elapsed >= i_uiTimeOut)
            return kesErrorOk;
    }
}

} // namespace kes
