#include "kes_enerysystem_private.h"

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
        KES_LOG(kesErrorFailed, "Can not close the communication");
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
        return KES_LOG(kesErrorFailed, "Can not close the communication");
    if (m_oSocket.Open(i_sAddress, i_usPort) != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not open the communication");
    m_uiReceiveTimeOut = i_uiReceiveTimeOut < MIN_RECEIVE_TIMEOUT ? MIN_RECEIVE_TIMEOUT : i_uiReceiveTimeOut;
    m_uiAnswerPause = i_uiAnswerPause < MIN_ANSWER_PAUSE ? MIN_ANSWER_PAUSE : i_uiAnswerPause;
    m_uiFailurePause = i_uiFailurePause < MIN_FAILURE_PAUSE ? MIN_FAILURE_PAUSE : i_uiFailurePause;
    // A new connection starts quiet, with no reply to measure promptness by.
    m_bUnanswered = false;
    m_uiStrayAt = kesTime::GetSteadyTime() - LATE_REPLY_WINDOW_MS;
    m_uiQuickest = ~0u;
    if (!m_oSocket.SetReceiveTimeOut(m_uiReceiveTimeOut))
        return KES_LOG(kesErrorFailed, "Can not set receive timeout");
    return kesErrorOk;
}

kesEError kesEnergySystem::CloseCommunication()
{
    if (m_oSocket.Close() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not close the communication");
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

void kesEnergySystem::pause(kesEPause i_eKind) const
{
    if (i_eKind == kesPauseAnswer)
        pause_after_answer();
    else if (i_eKind == kesPauseFailure)
        pause_after_failure();
}

// On a watched line the pauses are spent reading: what arrives then tells
// whether a reply may belong to another request.
void kesEnergySystem::settle(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange,
                             kesEExchangeStep i_eStep)
{
    if (!i_ladder.watchLine) {
        pause(i_ladder.pauses[i_eStep]);
        return;
    }
    switch (i_eStep) {
    case kesStepSend:
        note_unanswered(io_exchange.sentAt);
        break;
    case kesStepTimeOut:
    case kesStepLength:
        note_unanswered(io_exchange.sentAt);
        note_stray(io_exchange.received);
        if (io_pChannel->IsOpen())
            note_stray(drop_arriving(io_pChannel, m_uiFailurePause));
        break;
    case kesStepCrc: {
        // most likely this reply spoilt on the line; bytes behind it say otherwise
        int behind = drop_arriving(io_pChannel, m_uiFailurePause);
        note_stray(behind);
        if (behind > 0)
            note_unanswered(io_exchange.sentAt);
        break;
    }
    case kesStepAccepted:
        // A second frame within the answer pause (a reply twice, or a late one
        // beside this) leaves no telling which of them answered this request.
        io_exchange.after = drop_arriving(io_pChannel, m_uiAnswerPause);
        note_stray(io_exchange.after);
        break;
    default:
        break;
    }
}

kesEError kesEnergySystem::stop_at(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange,
                                   kesEExchangeStep i_eStep)
{
    io_exchange.step = i_eStep;
    settle(io_pChannel, i_ladder, io_exchange, i_eStep);
    const kesEError code = i_eStep == kesStepLength ? i_ladder.lengthCode : kesErrorFailed;
    kesString text = i_ladder.describe(io_exchange.step, io_exchange);
    if (text.empty())
        return code;
    return KES_LOG_IN(code, text, io_exchange.function);
}

// The reply alone may have a time-out of its own; failing to set it, or to
// set it back, ends the exchange.
kesEError kesEnergySystem::receive(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange)
{
    const unsigned int saved = io_pChannel->GetReceiveTimeOut();
    if (i_ladder.receiveTimeOut && !io_pChannel->SetReceiveTimeOut(i_ladder.receiveTimeOut))
        return KES_LOG_IN(kesErrorFailed, "Can not set reveice timeout", io_exchange.function);
    io_exchange.received = 0;
    int result = io_pChannel->Receive(io_exchange.reply, io_exchange.replyLength, &io_exchange.received);
    io_exchange.arrivedAt = kesTime::GetSteadyTime();
    io_exchange.timedOut = result == -2;
    if (i_ladder.receiveTimeOut && !io_pChannel->SetReceiveTimeOut(saved))
        return KES_LOG_IN(kesErrorFailed, "Can not set reveice timeout", io_exchange.function);
    return kesErrorOk;
}

kesEError kesEnergySystem::transfer(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange)
{
    // Bytes waiting now answer no request of this exchange.
    if (i_ladder.watchLine)
        note_stray(drop_arriving(io_pChannel, 0));
    for (int attempt = 0;; ++attempt) {
        int sent = io_pChannel->Send(io_exchange.request, io_exchange.requestSize);
        io_exchange.sentAt = kesTime::GetSteadyTime();
        if (io_exchange.checkSend && sent != static_cast<int>(io_exchange.requestSize))
            return stop_at(io_pChannel, i_ladder, io_exchange, kesStepSend);
        if (io_exchange.replyLength == 0) {
            io_exchange.step = kesStepAccepted;
            return kesErrorOk;
        }
        if (kesEError failed = receive(io_pChannel, i_ladder, io_exchange))
            return failed;
        // Only a TCP gateway times out with -2: there a silent key is asked again.
        if (!io_exchange.timedOut || !i_ladder.silenceAnswers)
            break;
        pause_after_failure();
        if (attempt > io_exchange.retries)
            break;
    }
    if (i_ladder.silenceAnswers) {
        pause_after_answer();
        if (io_exchange.received <= 0)
            return stop_at(io_pChannel, i_ladder, io_exchange, kesStepSilent);
    } else if (io_exchange.timedOut) {
        return stop_at(io_pChannel, i_ladder, io_exchange, kesStepTimeOut);
    }
    const unsigned int received = static_cast<unsigned int>(io_exchange.received);
    if (received < io_exchange.shortestReply || received > io_exchange.replyLength)
        return stop_at(io_pChannel, i_ladder, io_exchange, kesStepLength);
    if (!has_valid_crc(io_exchange.reply, received))
        return stop_at(io_pChannel, i_ladder, io_exchange, kesStepCrc);
    io_exchange.step = kesStepAccepted;
    settle(io_pChannel, i_ladder, io_exchange, kesStepAccepted);
    return kesErrorOk;
}

namespace {

kesString describe_measurement(kesEExchangeStep i_eStep, const kesExchange& i_exchange)
{
    kesString text;
    switch (i_eStep) {
    case kesStepSend:
        return with_address("Can not send data to the bus at address:", i_exchange.subject);
    case kesStepTimeOut:
    case kesStepLength:
        text.SetFormat(128, "%s%i bytes but requested %u at address:%u",
                       i_exchange.timedOut ? "Response timeout received " : "Received ", i_exchange.received,
                       i_exchange.replyLength, static_cast<unsigned int>(i_exchange.subject));
        return text;
    case kesStepCrc: {
        kesModbusRtuFrame response(i_exchange.reply, i_exchange.replyLength);
        kesModbusRtuFrame::DumpFrame(&response, &text);
        return kesString("Invalid Crc\n") + text;
    }
    default:
        return text;
    }
}

const kesLadder MEASUREMENT_LADDER = {true, {}, false, 0, kesErrorFailed, &describe_measurement};

} // namespace

kesEError kesEnergySystem::exchange(kesEnergySocket* io_pChannel, kesIModbusRtuFrame* i_pRequest, bool i_bCheckSend,
                                    unsigned short i_usAddress, unsigned int i_uiReplyLength, unsigned int i_uiDataSize,
                                    kesReplyDecoder i_pDecoder, void* io_pContext, const char* i_szFunction)
{
    // Large enough for any reply a frame can describe.
    unsigned char reply[264];
    if (!io_pChannel || !i_pRequest || i_uiReplyLength < 5 || i_uiReplyLength > sizeof(reply))
        return KES_LOG_IN(kesErrorInvalidArgument, "Invalid exchange", i_szFunction);
    kesExchange transaction(i_pRequest->GetFrameBufferPtr(), i_pRequest->GetFrameSize(), reply, i_uiReplyLength,
                            i_usAddress, i_szFunction);
    transaction.checkSend = i_bCheckSend;
    if (kesEError failed = transfer(io_pChannel, MEASUREMENT_LADDER, transaction))
        return failed;

    kesModbusRtuFrame response(reply, i_uiReplyLength);
    if (response.IsException())
        return KES_LOG_IN(kesErrorFailed, response.GetExceptionDescription(), i_szFunction);
    const unsigned char* data = response.GetDataPtr(true);
    unsigned int size = response.GetDataSize(true);
    if (size != i_uiDataSize || !data || response.GetUnitID() != i_pRequest->GetUnitID() ||
        response.GetFunctionCodeID() != i_pRequest->GetFunctionCodeID()) {
        // the reply of another request: this one may still be answered
        note_unanswered(transaction.sentAt);
        note_stray(transaction.received);
        return KES_LOG_IN(kesErrorFailed,
                          "pData && size && oFrameResponse.GetUnitID() && oFrameResponse.GetFunctionCodeID()",
                          i_szFunction);
    }
    if (transaction.after > 0) {
        kesString text;
        text.SetFormat(128, "Reply out of step, %i more bytes after it at address:%u", transaction.after,
                       static_cast<unsigned int>(i_usAddress));
        return KES_LOG_IN(kesErrorFailed, text, i_szFunction);
    }
    if (const char* why = untied(transaction.sentAt, transaction.arrivedAt)) {
        // it may be the late reply of the earlier request, and this one's still to come
        note_unanswered(transaction.sentAt);
        return KES_LOG_IN(kesErrorFailed, with_address(why, i_usAddress), i_szFunction);
    }
    return i_pDecoder ? i_pDecoder(data, size, io_pContext) : kesErrorOk;
}

kesEError kesEnergySystem::execute(kesEError (*i_pAttempt)(kesEnergySystem* io_pSystem, void* io_pContext),
                                   void* io_pContext, const char* i_szFailure, unsigned short i_usAddress,
                                   const char* i_szFunction)
{
    if (!m_oSocket.IsOpen())
        return KES_LOG_IN(kesErrorFailed, CHANNEL_CLOSED, i_szFunction);
    auto attempt = [&] { return i_pAttempt(this, io_pContext); };
    kesEError last = attempt_up_to(attempt);
    if (last == kesErrorOk)
        return kesErrorOk;
    return KES_LOG_IN(last, with_address(i_szFailure, i_usAddress), i_szFunction);
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
