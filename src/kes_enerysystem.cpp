#include "kes_enerysystem.h"

#include "kes_modbusrtu.h"
#include "kes_osthread.h"
#include "kes_time.h"

namespace kes {

unsigned char kesEnergySystem::EXECUTION_COUNT = 1;
unsigned char kesEnergySystem::MODE = 2;

const unsigned int kesEnergySystem::MIN_RECEIVE_TIMEOUT;
const unsigned int kesEnergySystem::MIN_ANSWER_PAUSE;
const unsigned int kesEnergySystem::MIN_FAILURE_PAUSE;

// How one output of a measurement read is decoded. Registers are unsigned: a
// scaled value never comes out negative.
enum kesERegisterKind {
    kesRegisterScaled, // one register times the scale, as float
    kesRegisterWord,   // one register, as unsigned short
    kesRegisterLong    // two registers, high first, as unsigned int
};

struct kesRegisterField {
    unsigned char offset; // in registers from the first of the reply
    kesERegisterKind kind;
    float scale;
};

// The constants of one measurement read; the exchange itself is written once.
struct kesMeasurementRead {
    kesEEnergyDeviceType unit;
    unsigned short startOffset; // from the bus address
    unsigned short registerCount;
    unsigned int replyLength;
    unsigned int dataSize;
    const kesRegisterField* fields;
    unsigned int fieldCount;
    const char* failure;
    // the names its records carry: the public read and its single attempt
    const char* function;
    const char* attemptFunction;
};

namespace {

constexpr kesRegisterField PANEL_FIELDS[] = {{0, kesRegisterScaled, 0.01f}, {1, kesRegisterScaled, 0.1f}};

constexpr kesRegisterField STRING_FIELDS[] = {{0, kesRegisterScaled, 0.1f},
                                              {1, kesRegisterScaled, 0.01f},
                                              {2, kesRegisterScaled, 0.01f},
                                              {3, kesRegisterScaled, 0.01f},
                                              {4, kesRegisterScaled, 0.01f}};

constexpr kesRegisterField PULSE_FIELDS[] = {
    {0, kesRegisterLong, 0}, {2, kesRegisterWord, 0}, {3, kesRegisterLong, 0}, {5, kesRegisterWord, 0}};

constexpr kesRegisterField PULSE_FIVE_FIELDS[] = {
    {0, kesRegisterLong, 0},  {2, kesRegisterWord, 0},  {3, kesRegisterLong, 0},  {5, kesRegisterLong, 0},
    {7, kesRegisterWord, 0},  {8, kesRegisterLong, 0},  {10, kesRegisterLong, 0}, {12, kesRegisterWord, 0},
    {13, kesRegisterLong, 0}, {15, kesRegisterLong, 0}, {17, kesRegisterWord, 0}, {18, kesRegisterLong, 0},
    {20, kesRegisterLong, 0}, {22, kesRegisterWord, 0}, {23, kesRegisterLong, 0}};

const char* const VOLT_TEMP_FAILURE = "Can not get Voltage and temperature at address:";
const char* const VOLT_AMPERE_FAILURE = "Can not voltage and ampere at address:";
const char* const PULSE_FAILURE = "Can not get data at address:";

constexpr bool is_consistent(unsigned short i_usRegisters, unsigned int i_uiReply, unsigned int i_uiData)
{
    return i_uiReply == 2u * i_usRegisters + 5u && i_uiData == 2u * i_usRegisters;
}

// Every decoded register lies inside the data of the reply.
constexpr bool fields_fit(const kesRegisterField* i_pFields, unsigned int i_uiCount, unsigned short i_usRegisters)
{
    for (unsigned int i = 0; i < i_uiCount; ++i)
        if (i_pFields[i].offset + (i_pFields[i].kind == kesRegisterLong ? 2u : 1u) > i_usRegisters)
            return false;
    return true;
}

} // namespace

#define KES_MEASUREMENT_READ(name, unit, registers, reply, data, fields, count, failure, function, attempt) \
    static_assert(is_consistent(registers, reply, data), "reply shape of " #name);                          \
    static_assert(count <= sizeof(fields) / sizeof(fields[0]), "fields of " #name);                         \
    static_assert(count <= kesEnergySystem::MAX_MEASUREMENT_OUTPUTS, "outputs of " #name);                  \
    static_assert(fields_fit(fields, count, registers), "registers of " #name);                             \
    const kesMeasurementRead name = {unit, 0, registers, reply, data, fields, count, failure, function, attempt}

// clang-format off
KES_MEASUREMENT_READ(PANEL_READ, kesEnergyDevicePanel, 2, 9, 4, PANEL_FIELDS, 2, VOLT_TEMP_FAILURE,
                     "ReadPanelVoltTemp", "read_response_panel_temp_and_voltage");
KES_MEASUREMENT_READ(STRING_READ, kesEnergyDeviceString, 2, 9, 4, STRING_FIELDS, 2, VOLT_AMPERE_FAILURE,
                     "ReadStringVoltAmpere", "read_response_string_voltage_ampere");
KES_MEASUREMENT_READ(STRING_ONE_READ, kesEnergyDeviceStringOne, 2, 9, 4, STRING_FIELDS, 2, VOLT_AMPERE_FAILURE,
                     "ReadStringOneVoltAmpere", "read_response_string1_voltage_ampere");
KES_MEASUREMENT_READ(STRING_TWO_READ, kesEnergyDeviceStringTwo, 3, 11, 6, STRING_FIELDS, 3, VOLT_AMPERE_FAILURE,
                     "ReadStringTwoVoltAmpere", "read_response_string2_voltage_ampere");
KES_MEASUREMENT_READ(STRING_THREE_READ, kesEnergyDeviceStringThree, 4, 13, 8, STRING_FIELDS, 4, VOLT_AMPERE_FAILURE,
                     "ReadStringThreeVoltAmpere", "read_response_string3_voltage_ampere");
KES_MEASUREMENT_READ(STRING_FOUR_READ, kesEnergyDeviceStringFour, 5, 15, 10, STRING_FIELDS, 5, VOLT_AMPERE_FAILURE,
                     "ReadStringFourVoltAmpere", "read_response_string4_voltage_ampere");
KES_MEASUREMENT_READ(ALARM_READ, kesEnergyDeviceAlarm, 2, 9, 4, STRING_FIELDS, 2, VOLT_AMPERE_FAILURE,
                     "ReadAlarmVoltAmpere", "read_response_alarm_voltage_ampere");
KES_MEASUREMENT_READ(PULSE_READ, kesEnergyDevicePulseCounter, 3, 11, 6, PULSE_FIELDS, 2, PULSE_FAILURE,
                     "ReadPulseCounterData", "read_response_pulsecounter_data");
KES_MEASUREMENT_READ(PULSE_TWO_READ, kesEnergyDevicePulseCounterTwo, 6, 17, 12, PULSE_FIELDS, 4, PULSE_FAILURE,
                     "ReadPulseCounterTwoData", "read_response_pulsecountertwo_data");
KES_MEASUREMENT_READ(PULSE_FIVE_READ, kesEnergyDevicePulseCounterFive, 25, 55, 50, PULSE_FIVE_FIELDS, 15, PULSE_FAILURE,
                     "ReadPulseCounterFiveData", "read_response_pulsecounterfive_data");
// clang-format on

#undef KES_MEASUREMENT_READ

namespace {

// The read of each device type by its number; Ambient has none.
const kesMeasurementRead* const READS[] = {nullptr,         &PANEL_READ,      &STRING_READ,     &ALARM_READ,
                                           nullptr,         &PULSE_READ,      &STRING_TWO_READ, &STRING_FOUR_READ,
                                           &PULSE_TWO_READ, &PULSE_FIVE_READ, &STRING_ONE_READ, &STRING_THREE_READ};

const kesMeasurementRead* read_of(kesEEnergyDeviceType i_eType)
{
    return i_eType < sizeof(READS) / sizeof(READS[0]) ? READS[i_eType] : nullptr;
}

} // namespace

namespace {

struct kesMeasurementContext {
    const kesMeasurementRead* read;
    void* const* outputs;
};

unsigned int register_at(const unsigned char* i_pData, unsigned int i_uiIndex)
{
    return (static_cast<unsigned int>(i_pData[2 * i_uiIndex]) << 8) | i_pData[2 * i_uiIndex + 1];
}

kesEError decode_measurement(const unsigned char* i_pData, unsigned int, void* io_pContext)
{
    const kesMeasurementContext* context = static_cast<const kesMeasurementContext*>(io_pContext);
    for (unsigned int i = 0; i < context->read->fieldCount; ++i) {
        void* output = context->outputs[i];
        if (!output)
            continue;
        const kesRegisterField& field = context->read->fields[i];
        switch (field.kind) {
        case kesRegisterScaled:
            *static_cast<float*>(output) = static_cast<float>(register_at(i_pData, field.offset)) * field.scale;
            break;
        case kesRegisterWord:
            *static_cast<unsigned short*>(output) = static_cast<unsigned short>(register_at(i_pData, field.offset));
            break;
        case kesRegisterLong:
            *static_cast<unsigned int*>(output) =
                (register_at(i_pData, field.offset) << 16) | register_at(i_pData, field.offset + 1u);
            break;
        }
    }
    return kesErrorOk;
}

kesString with_unknown(unsigned int i_uiValue)
{
    kesString text("Unknown type ");
    text += kesString::FromULong(i_uiValue);
    return text;
}

kesString with_address(const char* i_szText, unsigned short i_usAddress)
{
    kesString text(i_szText);
    text += kesString::FromULong(i_usAddress);
    return text;
}

} // namespace

kesEnergySystem::kesEnergySystem()
    : m_uiReceiveTimeOut(MIN_RECEIVE_TIMEOUT), m_uiAnswerPause(MIN_ANSWER_PAUSE), m_uiFailurePause(MIN_FAILURE_PAUSE),
      m_bUnanswered(false), m_uiUnansweredAt(0), m_uiStrayAt(kesTime::GetSteadyTime() - LATE_REPLY_WINDOW_MS),
      m_uiQuickest(~0u)
{
}

kesEnergySystem::~kesEnergySystem()
{
    if (CloseCommunication() != kesErrorOk)
        kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, "Can not close the communication", __FILE__, __func__, __LINE__));
}

void kesEnergySystem::OnDeviceFound(const kesEnergyDevice*)
{
}

void kesEnergySystem::OnDeviceAddressChanged(const kesEnergyDevice*)
{
}

kesEError kesEnergySystem::OpenCommunication(const kesString& i_sAddress, unsigned short i_usPort,
                                             unsigned int i_uiReceiveTimeOut, unsigned int i_uiAnswerPause,
                                             unsigned int i_uiFailurePause)
{
    if (CloseCommunication() != kesErrorOk)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, "Can not close the communication", __FILE__, __func__, __LINE__));
    if (m_oSocket.Open(i_sAddress, i_usPort) != kesErrorOk)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, "Can not open the communication", __FILE__, __func__, __LINE__));
    m_uiReceiveTimeOut = i_uiReceiveTimeOut < MIN_RECEIVE_TIMEOUT ? MIN_RECEIVE_TIMEOUT : i_uiReceiveTimeOut;
    m_uiAnswerPause = i_uiAnswerPause < MIN_ANSWER_PAUSE ? MIN_ANSWER_PAUSE : i_uiAnswerPause;
    m_uiFailurePause = i_uiFailurePause < MIN_FAILURE_PAUSE ? MIN_FAILURE_PAUSE : i_uiFailurePause;
    // A new connection starts quiet, with no reply to measure promptness by.
    m_bUnanswered = false;
    m_uiStrayAt = kesTime::GetSteadyTime() - LATE_REPLY_WINDOW_MS;
    m_uiQuickest = ~0u;
    if (!m_oSocket.SetReceiveTimeOut(m_uiReceiveTimeOut))
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, "Can not set receive timeout", __FILE__, __func__, __LINE__));
    return kesErrorOk;
}

kesEError kesEnergySystem::CloseCommunication()
{
    if (m_oSocket.Close() != kesErrorOk)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, "Can not close the communication", __FILE__, __func__, __LINE__));
    return kesErrorOk;
}

bool kesEnergySystem::IsConnected() const
{
    return m_oSocket.IsValid() && m_oSocket.IsOpen();
}

kesString kesEnergySystem::DeviceTypeToTypeName(kesEEnergyDeviceType i_eType)
{
    static const char* const NAMES[] = {
        "Panel",           "String",           "Alarm",     "Ambient",    "PulseCounter", "StringTwo", "StringFour",
        "PulseCounterTwo", "PulseCounterFive", "StringOne", "StringThree"};
    if (i_eType >= kesEnergyDevicePanel && i_eType <= kesEnergyDeviceStringThree)
        return kesString(NAMES[i_eType - 1]);
    return with_unknown(i_eType);
}

kesString kesEnergySystem::AlarmStatusTypeToTypeName(kesEEnergyAlarmStatus i_eStatus)
{
    static const char* const NAMES[] = {"Success",
                                        "Unexecutable, string in tension",
                                        "Unexecutable, power not null",
                                        "Boost power not reached, possible hardware damage",
                                        "Returned power less than minimun, possible manumission",
                                        "Returned power greater than maximun, possible manumission"};
    if (i_eStatus <= kesEnergyAlarmPowerAboveMaximum)
        return kesString(NAMES[i_eStatus]);
    return with_unknown(i_eStatus);
}

kesString kesEnergySystem::AlarmCycleStatusTypeToTypeName(kesEEnergyAlarmCycleStatus i_eStatus)
{
    if (i_eStatus == kesEnergyAlarmCycleTerminated)
        return kesString("Terminated");
    if (i_eStatus == kesEnergyAlarmCycleInProgress)
        return kesString("In Progress");
    return with_unknown(i_eStatus);
}

void kesEnergySystem::pause_after_answer() const
{
    kesOsThread::SleepMs(m_uiAnswerPause);
}

void kesEnergySystem::pause_after_failure() const
{
    kesOsThread::SleepMs(m_uiFailurePause);
}

int kesEnergySystem::drop_arriving(kesEnergySocket* io_pChannel, unsigned int i_uiMilliseconds) const
{
    return io_pChannel->Discard(i_uiMilliseconds);
}

void kesEnergySystem::note_unanswered(unsigned int i_uiSentAt)
{
    m_bUnanswered = true;
    m_uiUnansweredAt = i_uiSentAt;
}

void kesEnergySystem::note_stray(int i_iBytes)
{
    if (i_iBytes > 0)
        m_uiStrayAt = kesTime::GetSteadyTime();
}

// Replies carry nothing but the unit, which devices of one type share. While
// an earlier request may still be answered, a reply is taken as the answer to
// its own request only on a quiet line and when it came as fast as replies do.
const char* kesEnergySystem::untied(unsigned int i_uiSentAt, unsigned int i_uiArrivedAt)
{
    unsigned int took = i_uiArrivedAt - i_uiSentAt;
    unsigned int prompt = m_uiQuickest == ~0u ? 0u : 4u * m_uiQuickest + PROMPT_MARGIN_MS;
    m_uiQuickest = took < m_uiQuickest ? took : m_uiQuickest + 1u;
    if (!m_bUnanswered || i_uiArrivedAt - m_uiUnansweredAt >= LATE_REPLY_WINDOW_MS)
        return nullptr;
    if (i_uiArrivedAt - m_uiStrayAt < LATE_REPLY_WINDOW_MS)
        return "Reply after an unanswered request on a line out of step at address:";
    if (took <= prompt)
        return nullptr;
    // most likely the late one itself
    m_uiStrayAt = i_uiArrivedAt;
    return "Reply slower than the line's replies after an unanswered request at address:";
}

kesEError kesEnergySystem::exchange(kesEnergySocket* io_pChannel, kesIModbusRtuFrame* i_pRequest, bool i_bCheckSend,
                                    unsigned short i_usAddress, unsigned int i_uiReplyLength, unsigned int i_uiDataSize,
                                    kesReplyDecoder i_pDecoder, void* io_pContext, const char* i_szFunction)
{
    // Large enough for any reply a frame can describe.
    unsigned char reply[264];
    if (!io_pChannel || !i_pRequest || i_uiReplyLength < 5 || i_uiReplyLength > sizeof(reply))
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorInvalidArgument, "Invalid exchange", __FILE__, i_szFunction, __LINE__));

    // Bytes waiting now answer no request of this exchange.
    note_stray(drop_arriving(io_pChannel, 0));
    int sent = io_pChannel->Send(i_pRequest->GetFrameBufferPtr(), i_pRequest->GetFrameSize());
    unsigned int sentAt = kesTime::GetSteadyTime();
    if (i_bCheckSend && sent != static_cast<int>(i_pRequest->GetFrameSize())) {
        note_unanswered(sentAt);
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed,
                                                 with_address("Can not send data to the bus at address:", i_usAddress),
                                                 __FILE__, i_szFunction, __LINE__));
    }

    int received = 0;
    int result = io_pChannel->Receive(reply, i_uiReplyLength, &received);
    unsigned int arrivedAt = kesTime::GetSteadyTime();
    if (result == -2 || received != static_cast<int>(i_uiReplyLength)) {
        note_unanswered(sentAt);
        note_stray(received);
        if (io_pChannel->IsOpen())
            note_stray(drop_arriving(io_pChannel, m_uiFailurePause));
        kesString text;
        text.SetFormat(128, "%s%i bytes but requested %u at address:%u",
                       result == -2 ? "Response timeout received " : "Received ", received, i_uiReplyLength,
                       static_cast<unsigned int>(i_usAddress));
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, text, __FILE__, i_szFunction, __LINE__));
    }

    kesModbusRtuFrame response(reply, i_uiReplyLength);
    if (!response.HasValidCrc()) {
        // most likely this reply spoilt on the line; bytes behind it say otherwise
        int behind = drop_arriving(io_pChannel, m_uiFailurePause);
        note_stray(behind);
        if (behind > 0)
            note_unanswered(sentAt);
        kesString dump;
        kesModbusRtuFrame::DumpFrame(&response, &dump);
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, kesString("Invalid Crc\n") + dump, __FILE__, i_szFunction, __LINE__));
    }

    // A second frame within the answer pause (a reply twice, or a late one
    // beside this) leaves no telling which of them answered this request.
    int after = drop_arriving(io_pChannel, m_uiAnswerPause);
    note_stray(after);

    if (response.IsException())
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, response.GetExceptionDescription(), __FILE__,
                                                 i_szFunction, __LINE__));

    const unsigned char* data = response.GetDataPtr(true);
    unsigned int size = response.GetDataSize(true);
    if (size != i_uiDataSize || !data || response.GetUnitID() != i_pRequest->GetUnitID() ||
        response.GetFunctionCodeID() != i_pRequest->GetFunctionCodeID()) {
        // the reply of another request: this one may still be answered
        note_unanswered(sentAt);
        note_stray(received);
        return kesErrorLog(kesBuildErrorLocation(
            kesErrorFailed, "pData && size && oFrameResponse.GetUnitID() && oFrameResponse.GetFunctionCodeID()",
            __FILE__, i_szFunction, __LINE__));
    }

    if (after > 0) {
        kesString text;
        text.SetFormat(128, "Reply out of step, %i more bytes after it at address:%u", after,
                       static_cast<unsigned int>(i_usAddress));
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, text, __FILE__, i_szFunction, __LINE__));
    }
    if (const char* why = untied(sentAt, arrivedAt)) {
        // it may be the late reply of the earlier request, and this one's still to come
        note_unanswered(sentAt);
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, with_address(why, i_usAddress), __FILE__, i_szFunction, __LINE__));
    }
    return i_pDecoder ? i_pDecoder(data, size, io_pContext) : kesErrorOk;
}

kesEError kesEnergySystem::execute(kesEError (*i_pAttempt)(kesEnergySystem* io_pSystem, void* io_pContext),
                                   void* io_pContext, const char* i_szFailure, unsigned short i_usAddress,
                                   const char* i_szFunction)
{
    if (!m_oSocket.IsOpen())
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, "Communication is closed! Call OpenCommunication(...)",
                                                 __FILE__, i_szFunction, __LINE__));
    if (EXECUTION_COUNT == 0)
        return kesErrorOk;
    kesEError last = kesErrorOk;
    for (unsigned int attempt = 0; attempt < EXECUTION_COUNT; ++attempt) {
        last = i_pAttempt(this, io_pContext);
        if (last == kesErrorOk)
            return kesErrorOk;
    }
    return kesErrorLog(
        kesBuildErrorLocation(last, with_address(i_szFailure, i_usAddress), __FILE__, i_szFunction, __LINE__));
}

kesEError kesEnergySystem::read_measurement(kesEnergySocket* io_pChannel, const kesMeasurementRead& i_read,
                                            unsigned short i_usAddress, void* const* o_ppOutputs,
                                            const char* i_szFunction)
{
    kesModbusRtuReadHoldingRegistersFrame request;
    request.SetUnitID(static_cast<unsigned char>(i_read.unit));
    request.SetRegisters(static_cast<unsigned short>(i_usAddress + i_read.startOffset), i_read.registerCount);
    kesMeasurementContext context = {&i_read, o_ppOutputs};
    return exchange(io_pChannel, request.GetModbusRtuFramePtr(), true, i_usAddress, i_read.replyLength, i_read.dataSize,
                    &decode_measurement, &context, i_szFunction);
}

kesEError kesEnergySystem::ReadMeasurement(kesEEnergyDeviceType i_eType, unsigned short i_usAddress,
                                           void* const* o_ppOutputs)
{
    const kesMeasurementRead* read = read_of(i_eType);
    if (!read)
        return KES_LOG(kesErrorInvalidArgument, with_unknown(i_eType));
    auto attempt = [&] { return read_measurement(&m_oSocket, *read, i_usAddress, o_ppOutputs, read->attemptFunction); };
    return execute(attempt, read->failure, i_usAddress, read->function);
}

kesEnergySystem::kesEMeasurementOutput kesEnergySystem::GetMeasurementOutput(kesEEnergyDeviceType i_eType,
                                                                             unsigned int i_uiOutput)
{
    const kesMeasurementRead* read = read_of(i_eType);
    if (!read || i_uiOutput >= read->fieldCount)
        return MeasurementNone;
    switch (read->fields[i_uiOutput].kind) {
    case kesRegisterScaled:
        return MeasurementFloat;
    case kesRegisterWord:
        return MeasurementWord;
    case kesRegisterLong:
        return MeasurementLong;
    }
    return MeasurementNone;
}

kesEError kesEnergySystem::ReadPanelVoltTemp(unsigned short i_usAddress, float* o_pVoltage, float* o_pTemperature)
{
    void* const outputs[] = {o_pVoltage, o_pTemperature};
    return ReadMeasurement(kesEnergyDevicePanel, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadStringVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere)
{
    void* const outputs[] = {o_pVoltage, o_pAmpere};
    return ReadMeasurement(kesEnergyDeviceString, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadStringOneVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere)
{
    void* const outputs[] = {o_pVoltage, o_pAmpere};
    return ReadMeasurement(kesEnergyDeviceStringOne, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadStringTwoVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere1,
                                                   float* o_pAmpere2)
{
    void* const outputs[] = {o_pVoltage, o_pAmpere1, o_pAmpere2};
    return ReadMeasurement(kesEnergyDeviceStringTwo, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadStringThreeVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere1,
                                                     float* o_pAmpere2, float* o_pAmpere3)
{
    void* const outputs[] = {o_pVoltage, o_pAmpere1, o_pAmpere2, o_pAmpere3};
    return ReadMeasurement(kesEnergyDeviceStringThree, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadStringFourVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere1,
                                                    float* o_pAmpere2, float* o_pAmpere3, float* o_pAmpere4)
{
    void* const outputs[] = {o_pVoltage, o_pAmpere1, o_pAmpere2, o_pAmpere3, o_pAmpere4};
    return ReadMeasurement(kesEnergyDeviceStringFour, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadAlarmVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere)
{
    void* const outputs[] = {o_pVoltage, o_pAmpere};
    return ReadMeasurement(kesEnergyDeviceAlarm, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadPulseCounterData(unsigned short i_usAddress, unsigned int* o_pCount,
                                                unsigned short* o_pPeriod)
{
    void* const outputs[] = {o_pCount, o_pPeriod};
    return ReadMeasurement(kesEnergyDevicePulseCounter, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadPulseCounterTwoData(unsigned short i_usAddress, unsigned int* o_pCount1,
                                                   unsigned short* o_pPeriod1, unsigned int* o_pCount2,
                                                   unsigned short* o_pPeriod2)
{
    void* const outputs[] = {o_pCount1, o_pPeriod1, o_pCount2, o_pPeriod2};
    return ReadMeasurement(kesEnergyDevicePulseCounterTwo, i_usAddress, outputs);
}

kesEError kesEnergySystem::ReadPulseCounterFiveData(
    unsigned short i_usAddress, unsigned int* o_pCount1, unsigned short* o_pPeriod1, unsigned int* o_pSecond1,
    unsigned int* o_pCount2, unsigned short* o_pPeriod2, unsigned int* o_pSecond2, unsigned int* o_pCount3,
    unsigned short* o_pPeriod3, unsigned int* o_pSecond3, unsigned int* o_pCount4, unsigned short* o_pPeriod4,
    unsigned int* o_pSecond4, unsigned int* o_pCount5, unsigned short* o_pPeriod5, unsigned int* o_pSecond5)
{
    void* const outputs[] = {o_pCount1,  o_pPeriod1, o_pSecond1, o_pCount2,  o_pPeriod2,
                             o_pSecond2, o_pCount3,  o_pPeriod3, o_pSecond3, o_pCount4,
                             o_pPeriod4, o_pSecond4, o_pCount5,  o_pPeriod5, o_pSecond5};
    return ReadMeasurement(kesEnergyDevicePulseCounterFive, i_usAddress, outputs);
}

} // namespace kes
