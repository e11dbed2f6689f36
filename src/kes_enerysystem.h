// Protocol engine of one bus: device model, reading records and the
// measurement reads.
//
// On this bus the Modbus unit identifier is the device type, and a device is
// picked by its register block: module number times 100 is its bus address,
// the first register of the block.
#ifndef KES_ENERYSYSTEM_H
#define KES_ENERYSYSTEM_H

#include "kes_energysocket.h"
#include "kes_error.h"
#include "kes_string.h"

namespace kes {

enum kesEEnergyDeviceType : unsigned int {
    kesEnergyDevicePanel = 1,
    kesEnergyDeviceString = 2,
    kesEnergyDeviceAlarm = 3,
    kesEnergyDeviceAmbient = 4,
    kesEnergyDevicePulseCounter = 5,
    kesEnergyDeviceStringTwo = 6,
    kesEnergyDeviceStringFour = 7,
    kesEnergyDevicePulseCounterTwo = 8,
    kesEnergyDevicePulseCounterFive = 9,
    kesEnergyDeviceStringOne = 10,
    kesEnergyDeviceStringThree = 11
};

enum kesEEnergyAlarmStatus : unsigned int {
    kesEnergyAlarmSuccess = 0,
    kesEnergyAlarmStringInTension = 1,
    kesEnergyAlarmPowerNotNull = 2,
    kesEnergyAlarmBoostNotReached = 3,
    kesEnergyAlarmPowerBelowMinimum = 4,
    kesEnergyAlarmPowerAboveMaximum = 5
};

enum kesEEnergyAlarmCycleStatus : unsigned int { kesEnergyAlarmCycleTerminated = 0, kesEnergyAlarmCycleInProgress = 1 };

// One device on the bus. Type and module number can change by addressing;
// the hardware serial number cannot, so records compare by it alone.
struct kesEnergyDevice {
    kesEEnergyDeviceType Type;
    unsigned char Address;
    unsigned int UniqueID;

    kesEnergyDevice() : Type(kesEnergyDevicePanel), Address(0), UniqueID(0) {}
    bool operator<(const kesEnergyDevice& i_other) const { return UniqueID < i_other.UniqueID; }
    bool operator==(const kesEnergyDevice& i_other) const { return UniqueID == i_other.UniqueID; }
};

// Reading records, one per kind of reading, each led by the bus address.
struct kesEnergyPanelData {
    unsigned short address;
    float voltage;
    float temperature;
};

struct kesEnergyStringData {
    unsigned short address;
    float voltage;
    float ampere;
};

struct kesEnergyStringTwoData {
    unsigned short address;
    float voltage;
    float ampere1;
    float ampere2;
};

struct kesEnergyStringThreeData {
    unsigned short address;
    float voltage;
    float ampere1;
    float ampere2;
    float ampere3;
};

struct kesEnergyStringFourData {
    unsigned short address;
    float voltage;
    float ampere1;
    float ampere2;
    float ampere3;
    float ampere4;
};

struct kesEnergyAlarmData {
    unsigned short address;
    float voltage;
    float ampere;
    unsigned char status;
};

struct kesEnergyPulseCounterData {
    unsigned short address;
    unsigned int count;
    unsigned short period;
};

struct kesEnergyPulseCounterTwoData {
    unsigned short address;
    unsigned int count1;
    unsigned short period1;
    unsigned int count2;
    unsigned short period2;
};

struct kesEnergyPulseCounterFiveData {
    unsigned short address;
    unsigned int count1;
    unsigned short period1;
    unsigned int count2;
    unsigned short period2;
    unsigned int count3;
    unsigned short period3;
    unsigned int count4;
    unsigned short period4;
    unsigned int count5;
    unsigned short period5;
};

class kesIModbusRtuFrame;
class kesModbusRtuFrame;
struct kesMeasurementRead;
struct kesExchange;
struct kesLadder;
enum kesEExchangeStep : unsigned int;
enum kesEPause : unsigned int;

class kesEnergySystem {
public:
    // Attempts per operation before it reports failure.
    static unsigned char EXECUTION_COUNT;
    // 2: discovery mutes each device found.
    static unsigned char MODE;

    // Where a device keeps its identity texts (model, serial text, test date):
    // their lengths in registers, and their offsets from the bus address by
    // device type. The first types kept them right after two measurement
    // registers, the later ones after five; Ambient keeps its test date at 24.
    static constexpr unsigned int IDENTITY_FIELDS = 3;
    static constexpr unsigned short IDENTITY_REGISTERS[IDENTITY_FIELDS] = {5, 15, 10};
    static constexpr unsigned char IDENTITY_OFFSETS[kesEnergyDeviceStringThree + 1][IDENTITY_FIELDS] = {
        {0, 0, 0},   // no type 0
        {2, 7, 22},  // Panel
        {2, 7, 22},  // String
        {5, 10, 25}, // Alarm
        {2, 7, 24},  // Ambient
        {5, 10, 25}, // PulseCounter
        {5, 10, 25}, // StringTwo
        {5, 10, 25}, // StringFour
        {5, 10, 25}, // PulseCounterTwo
        {5, 10, 25}, // PulseCounterFive
        {5, 10, 25}, // StringOne
        {5, 10, 25}  // StringThree
    };

    // Floors of the timing given to OpenCommunication, in milliseconds.
    static const unsigned int MIN_RECEIVE_TIMEOUT = 50;
    static const unsigned int MIN_ANSWER_PAUSE = 5;
    static const unsigned int MIN_FAILURE_PAUSE = 30;

    kesEnergySystem();
    virtual ~kesEnergySystem();
    kesEnergySystem(const kesEnergySystem&) = delete;
    kesEnergySystem& operator=(const kesEnergySystem&) = delete;

    // Hooks for classes that follow discovery and addressing.
    virtual void OnDeviceFound(const kesEnergyDevice* i_pDevice);
    virtual void OnDeviceAddressChanged(const kesEnergyDevice* i_pDevice);

    kesEError OpenCommunication(const kesString& i_sAddress, unsigned short i_usPort, unsigned int i_uiReceiveTimeOut,
                                unsigned int i_uiAnswerPause, unsigned int i_uiFailurePause);
    kesEError CloseCommunication();
    bool IsConnected() const;

    unsigned int GetReceiveTimeOut() const { return m_uiReceiveTimeOut; }
    unsigned int GetAnswerPause() const { return m_uiAnswerPause; }
    unsigned int GetFailurePause() const { return m_uiFailurePause; }

    static kesString DeviceTypeToTypeName(kesEEnergyDeviceType i_eType);
    static kesString AlarmStatusTypeToTypeName(kesEEnergyAlarmStatus i_eStatus);
    static kesString AlarmCycleStatusTypeToTypeName(kesEEnergyAlarmCycleStatus i_eStatus);

    // The measurement read of any device type: the outputs in the order of the
    // typed read below, each of the kind GetMeasurementOutput names; any may be
    // null. 0 on success; after a failure the outputs keep what they held.
    enum kesEMeasurementOutput {
        MeasurementNone,  // past the outputs, or a type with no read
        MeasurementFloat, // float
        MeasurementWord,  // unsigned short
        MeasurementLong   // unsigned int
    };
    static const unsigned int MAX_MEASUREMENT_OUTPUTS = 15;
    kesEError ReadMeasurement(kesEEnergyDeviceType i_eType, unsigned short i_usAddress, void* const* o_ppOutputs);
    static kesEMeasurementOutput GetMeasurementOutput(kesEEnergyDeviceType i_eType, unsigned int i_uiOutput);

    // Measurement reads: bus address first, then the outputs; any output may be
    // null. 0 on success; after a failure the outputs keep what they held.
    kesEError ReadPanelVoltTemp(unsigned short i_usAddress, float* o_pVoltage, float* o_pTemperature);
    kesEError ReadStringVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere);
    kesEError ReadStringOneVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere);
    kesEError ReadStringTwoVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere1,
                                      float* o_pAmpere2);
    kesEError ReadStringThreeVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere1,
                                        float* o_pAmpere2, float* o_pAmpere3);
    kesEError ReadStringFourVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere1,
                                       float* o_pAmpere2, float* o_pAmpere3, float* o_pAmpere4);
    kesEError ReadAlarmVoltAmpere(unsigned short i_usAddress, float* o_pVoltage, float* o_pAmpere);
    kesEError ReadPulseCounterData(unsigned short i_usAddress, unsigned int* o_pCount, unsigned short* o_pPeriod);
    kesEError ReadPulseCounterTwoData(unsigned short i_usAddress, unsigned int* o_pCount1, unsigned short* o_pPeriod1,
                                      unsigned int* o_pCount2, unsigned short* o_pPeriod2);
    kesEError ReadPulseCounterFiveData(unsigned short i_usAddress, unsigned int* o_pCount1, unsigned short* o_pPeriod1,
                                       unsigned int* o_pSecond1, unsigned int* o_pCount2, unsigned short* o_pPeriod2,
                                       unsigned int* o_pSecond2, unsigned int* o_pCount3, unsigned short* o_pPeriod3,
                                       unsigned int* o_pSecond3, unsigned int* o_pCount4, unsigned short* o_pPeriod4,
                                       unsigned int* o_pSecond4, unsigned int* o_pCount5, unsigned short* o_pPeriod5,
                                       unsigned int* o_pSecond5);

protected:
    // Decodes the data of an accepted reply; returns 0, or a code it has
    // reported (the exchange then sleeps the answer pause and gives the code).
    typedef kesEError (*kesReplyDecoder)(const unsigned char* i_pData, unsigned int i_uiSize, void* io_pContext);

    // One Modbus request and one reply of known length, checked in order: send
    // count, time-out, length, CRC, exception, data size, unit and function
    // code. Every measurement-style exchange goes through here.
    kesEError exchange(kesEnergySocket* io_pChannel, kesIModbusRtuFrame* i_pRequest, bool i_bCheckSend,
                       unsigned short i_usAddress, unsigned int i_uiReplyLength, unsigned int i_uiDataSize,
                       kesReplyDecoder i_pDecoder, void* io_pContext, const char* i_szFunction);

    // Runs one attempt up to EXECUTION_COUNT times on an open channel, and
    // reports i_szFailure with the bus address after the last failure.
    kesEError execute(kesEError (*i_pAttempt)(kesEnergySystem* io_pSystem, void* io_pContext), void* io_pContext,
                      const char* i_szFailure, unsigned short i_usAddress, const char* i_szFunction);

    template <class Attempt>
    kesEError execute(Attempt& io_attempt, const char* i_szFailure, unsigned short i_usAddress,
                      const char* i_szFunction)
    {
        return execute(&call_attempt<Attempt>, &io_attempt, i_szFailure, i_usAddress, i_szFunction);
    }

    // Virtual so that a harness feeding replies at full speed can skip the
    // waits; the bus itself always gets them.
    virtual void pause_after_answer() const;
    virtual void pause_after_failure() const;
    // The pauses of a measurement-style exchange, spent reading: whatever
    // arrives is dropped and counted (or -1 / -3 when the channel fails).
    virtual int drop_arriving(kesEnergySocket* io_pChannel, unsigned int i_uiMilliseconds) const;

    // How long after an unanswered request its reply is still expected, so
    // that a reply arriving meanwhile may be that one rather than its own.
    static const unsigned int LATE_REPLY_WINDOW_MS = 5000;
    // Beyond four times the quickest reply and this, a reply is no longer prompt.
    static const unsigned int PROMPT_MARGIN_MS = 50;

    kesEnergySocket m_oSocket;

private:
    // One measurement exchange, its constants and decoding taken from a row of
    // the read table.
    kesEError read_measurement(kesEnergySocket* io_pChannel, const kesMeasurementRead& i_read,
                               unsigned short i_usAddress, void* const* o_ppOutputs, const char* i_szFunction);

    // The one exchange of every frame on the bus: send, receive, length and CRC,
    // with the pauses and reports of the frame's ladder. 0 once a reply of the
    // right length and CRC is in; then only its content is left to check.
    kesEError transfer(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange);
    kesEError receive(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange);
    kesEError stop_at(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange,
                      kesEExchangeStep i_eStep);
    void settle(kesEnergySocket* io_pChannel, const kesLadder& i_ladder, kesExchange& io_exchange,
                kesEExchangeStep i_eStep);
    void pause(kesEPause i_eKind) const;

    template <class Attempt>
    static kesEError call_attempt(kesEnergySystem*, void* io_pAttempt)
    {
        return (*static_cast<Attempt*>(io_pAttempt))();
    }

    // Late replies: the last request that got no reply of its own, and the
    // last bytes that belonged to no request (steady clock, milliseconds).
    void note_unanswered(unsigned int i_uiSentAt);
    void note_stray(int i_iBytes);
    // 0 when the reply answers its own request; otherwise why it may not.
    const char* untied(unsigned int i_uiSentAt, unsigned int i_uiArrivedAt);

    unsigned int m_uiReceiveTimeOut;
    unsigned int m_uiAnswerPause;
    unsigned int m_uiFailurePause;
    bool m_bUnanswered;
    unsigned int m_uiUnansweredAt;
    unsigned int m_uiStrayAt;
    // The quickest reply of this connection, creeping up by 1 ms a reply so
    // that a line grown slower is followed; no reply yet: ~0u.
    unsigned int m_uiQuickest;

    // ---- identity, alarm device, addressing, discovery and device report
public:
    // Identity texts come back at the full length of their field, zero bytes
    // and padding included.
#define KES_IDENTITY_READS(WORD)                                                  \
    kesEError Read##WORD##Model(unsigned short i_usAddress, kesString* o_pData);  \
    kesEError Read##WORD##Serial(unsigned short i_usAddress, kesString* o_pData); \
    kesEError Read##WORD##TestDate(unsigned short i_usAddress, kesString* o_pData);
    KES_IDENTITY_READS(Panel)
    KES_IDENTITY_READS(String)
    KES_IDENTITY_READS(StringOne)
    KES_IDENTITY_READS(StringTwo)
    KES_IDENTITY_READS(StringThree)
    KES_IDENTITY_READS(StringFour)
    KES_IDENTITY_READS(Ambient)
    KES_IDENTITY_READS(Alarm)
    KES_IDENTITY_READS(PulseCounter)
    KES_IDENTITY_READS(PulseCounterTwo)
    KES_IDENTITY_READS(PulseCounterFive)
#undef KES_IDENTITY_READS

    // Data sheet of a panel; any output may be null.
    kesEError ReadPanelFlash(unsigned short i_usAddress, float* o_pOpenVoltage, float* o_pOpenAmpere,
                             float* o_pMaxPower, float* o_pMaxVoltage, float* o_pMaxAmpere, float* o_pEfficiency,
                             unsigned int* o_pCells, unsigned int* o_pPanels);

    // While a check cycle runs the status and the power keep what they held.
    kesEError ReadAlarmStatus(unsigned short i_usAddress, unsigned char* o_pCycle, unsigned char* o_pStatus,
                              unsigned short* o_pPower);
    kesEError SetupAlarmTuning(unsigned short i_usAddress, unsigned short i_usTuning1, unsigned short i_usTuning2,
                               unsigned short i_usTuning3);
    // A cycle still running after i_uiTimeOut is no failure: o_pCycle stays 1.
    kesEError ControlAlarmDevice(unsigned short i_usAddress, unsigned int i_uiTimeOut, unsigned short i_usTuning1,
                                 unsigned short i_usTuning2, unsigned short i_usTuning3, unsigned char* o_pCycle,
                                 unsigned char* o_pStatus, unsigned short* o_pPower);

    kesEError EnableAllDeviceFind();
    kesEError MuteDeviceBySerial(unsigned int i_uiSerial);
    // Module numbers 1 to 100 only.
    kesEError SetDeviceAddress(unsigned int i_uiSerial, unsigned char i_ucAddress);
    // Numbers the devices from i_ucOffset (1 when 0) in the order of the list.
    // A list whose numbers would run past 255 is refused whole.
    kesEError SetDevicesAddresses(unsigned char i_ucOffset, kesArray<kesEnergyDevice>* io_devices);

    kesEError FindAllDevices(kesArray<kesEnergyDevice>* o_devices);
    bool FindDeviceBySerial(unsigned int i_uiSerial, kesEnergyDevice* io_pDevice);

    // Appends the report of one device to o_strData.
    kesEError GetDeviceInfo(const kesEnergyDevice* i_pDevice, kesString* o_strData);

    // How often FindAllDevices asks one key again after answers, so that a
    // device that keeps answering cannot hold the search.
    static const unsigned int MAX_ROUNDS_PER_KEY = 100;

    // Results of one search exchange besides the reply length.
    enum ESearchResult { SearchSilent = -1, SearchCollision = -2, SearchOtherLength = -3 };

protected:
    // Search for buses whose devices cannot be muted, and the plain fine-key
    // search; both sort the result by serial number.
    kesEError old_find_all_devices(kesArray<kesEnergyDevice>* o_devices, int i_iRetries, int i_iChecks);
    kesEError find_all_devices_10000(kesArray<kesEnergyDevice>* o_devices, int i_iCount);
    int read_all_device_with_100(kesEnergySocket* io_pChannel, unsigned short i_usSearchKey,
                                 kesArray<kesEnergyDevice>* o_devices, int i_iRetries, bool i_bNotify);
    int read_all_device_with_10000(kesEnergySocket* io_pChannel, unsigned short i_usSearchKey,
                                   kesArray<kesEnergyDevice>* o_devices, int i_iRetries, bool i_bNotify);

    kesEError enable_alldevices(kesEnergySocket* io_pChannel);
    kesEError mute_device(kesEnergySocket* io_pChannel, unsigned int i_uiSerial);
    // 0, 1 when the device refused, or a reported code.
    kesEError set_address_by_serial(kesEnergySocket* io_pChannel, unsigned int i_uiSerial, unsigned char i_ucAddress);

private:
    kesEError read_response_model(kesEnergySocket* io_pChannel, kesEEnergyDeviceType i_eType,
                                  unsigned short i_usAddress, kesString* o_pData, unsigned char i_ucOffset);
    kesEError read_response_serial(kesEnergySocket* io_pChannel, kesEEnergyDeviceType i_eType,
                                   unsigned short i_usAddress, kesString* o_pData, unsigned char i_ucOffset);
    kesEError read_response_test_date(kesEnergySocket* io_pChannel, kesEEnergyDeviceType i_eType,
                                      unsigned short i_usAddress, kesString* o_pData, unsigned char i_ucOffset);
    kesEError read_response_panel_flash(kesEnergySocket* io_pChannel, unsigned short i_usAddress, float* o_pOpenVoltage,
                                        float* o_pOpenAmpere, float* o_pMaxPower, float* o_pMaxVoltage,
                                        float* o_pMaxAmpere, float* o_pEfficiency, unsigned int* o_pCells,
                                        unsigned int* o_pPanels);
    kesEError read_response_alarm_status(kesEnergySocket* io_pChannel, unsigned short i_usAddress,
                                         unsigned char* o_pCycle, unsigned char* o_pStatus, unsigned short* o_pPower);
    kesEError setup_alarm_device_tuning(kesEnergySocket* io_pChannel, unsigned short i_usAddress,
                                        unsigned short i_usTuning1, unsigned short i_usTuning2,
                                        unsigned short i_usTuning3);

    // One identity read: field i_uiField of the identity table (model, serial
    // text, test date) of the device type.
    kesEError read_identity(unsigned int i_uiField, kesEEnergyDeviceType i_eType, unsigned short i_usAddress,
                            kesString* o_pData, const char* i_szFunction);
    kesEError read_text(kesEnergySocket* io_pChannel, unsigned int i_uiField, kesEEnergyDeviceType i_eType,
                        unsigned short i_usAddress, kesString* o_pData, unsigned char i_ucOffset,
                        const char* i_szFunction);
    // One coarse (i_bFine false) or fine search exchange.
    int search(kesEnergySocket* io_pChannel, bool i_bFine, unsigned short i_usSearchKey,
               kesArray<kesEnergyDevice>* o_devices, int i_iRetries, bool i_bNotify);
    // Asks one key again while it brings new devices; false when no answer
    // brought one.
    bool search_key_until_silent(bool i_bFine, unsigned short i_usSearchKey, kesArray<kesEnergyDevice>* o_devices,
                                 int* o_pLast);
    // The hundred fine keys under one coarse key; true when one brought a
    // device.
    bool search_fine_keys(unsigned short i_usCoarseKey, kesArray<kesEnergyDevice>* o_devices, bool i_bReportCollisions);
    kesEError check_find_arguments(kesArray<kesEnergyDevice>* o_devices, const char* i_szFunction);
    void old_fine_scan(unsigned short i_usCoarseKey, kesArray<kesEnergyDevice>* o_devices, int i_iRetries,
                       int i_iChecks);
};

} // namespace kes

#endif
