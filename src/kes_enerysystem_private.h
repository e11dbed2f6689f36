// What the files of kesEnergySystem share: bytes of the bus, the retry of an
// operation and the shape of one exchange. Included by those files alone.
#ifndef KES_ENERYSYSTEM_PRIVATE_H
#define KES_ENERYSYSTEM_PRIVATE_H

#include "kes_enerysystem.h"
#include "kes_modbusrtu.h"

namespace kes {

// The unit every device hears: the bus's own frames go to it.
const unsigned char BUS_UNIT = 0xFF;

// The bus's own frames, all sent to BUS_UNIT: the function code of each
// request and of its reply. Enabling the search has no reply.
struct kesBusFunction {
    unsigned char request;
    unsigned char reply;
};
constexpr kesBusFunction COARSE_SEARCH = {0x03, 0x05}, FINE_SEARCH = {0x04, 0x06};
constexpr kesBusFunction SET_ADDRESS = {0x07, 0x08}, MUTE = {0x0C, 0x0D};
const unsigned char FUNCTION_ENABLE_SEARCH = 0x0E;

inline unsigned int register_at(const unsigned char* i_pData, unsigned int i_uiIndex)
{
    return (static_cast<unsigned int>(i_pData[2 * i_uiIndex]) << 8) | i_pData[2 * i_uiIndex + 1];
}

// A hardware serial number goes on the bus high byte first.
inline unsigned int serial_at(const unsigned char* i_pBytes)
{
    return (register_at(i_pBytes, 0) << 16) | register_at(i_pBytes, 1);
}

inline void put_serial(unsigned char* o_pBytes, unsigned int i_uiSerial)
{
    for (unsigned int i = 0; i < 4; ++i)
        o_pBytes[i] = static_cast<unsigned char>(i_uiSerial >> (24 - 8 * i));
}

// The CRC closes a frame low byte first.
inline void put_crc(unsigned char* io_pFrame, unsigned int i_uiSize)
{
    unsigned short crc = kesModbusRtuCrc(io_pFrame, i_uiSize - 2);
    io_pFrame[i_uiSize - 2] = static_cast<unsigned char>(crc & 0xFF);
    io_pFrame[i_uiSize - 1] = static_cast<unsigned char>(crc >> 8);
}

inline bool has_valid_crc(const unsigned char* i_pFrame, unsigned int i_uiSize)
{
    unsigned short crc = kesModbusRtuCrc(i_pFrame, i_uiSize - 2);
    return i_pFrame[i_uiSize - 2] == (crc & 0xFF) && i_pFrame[i_uiSize - 1] == (crc >> 8);
}

inline kesString with_address(const char* i_szText, unsigned long i_ulAddress)
{
    kesString text(i_szText);
    text += kesString::FromULong(i_ulAddress);
    return text;
}

inline kesString with_unknown(unsigned int i_uiValue)
{
    return with_address("Unknown type ", i_uiValue);
}

// Up to EXECUTION_COUNT attempts, until one succeeds; the code of the last.
// A count of 0 makes no attempt, and no attempt is no failure: 0, and nothing
// of the operation is done.
template <class Attempt>
kesEError attempt_up_to(Attempt& io_attempt)
{
    kesEError last = kesErrorOk;
    for (unsigned int i = 0; i < kesEnergySystem::EXECUTION_COUNT; ++i) {
        last = io_attempt();
        if (last == kesErrorOk)
            break;
    }
    return last;
}

const char* const CHANNEL_CLOSED = "Communication is closed! Call OpenCommunication(...)";

// Where one exchange stopped, in the order of its checks.
enum kesEExchangeStep : unsigned int {
    kesStepSend,     // Send gave another count
    kesStepTimeOut,  // no whole reply before the time-out
    kesStepLength,   // a reply of another length
    kesStepCrc,      // a reply spoilt on the line
    kesStepSilent,   // nobody answered a search
    kesStepAccepted, // a reply to look into
    kesStepCount
};

enum kesEPause : unsigned int { kesPauseNone, kesPauseAnswer, kesPauseFailure };

// One exchange under way: what goes out, what comes back.
struct kesExchange {
    const unsigned char* request;
    unsigned int requestSize;
    unsigned char* reply;
    unsigned int replyLength;   // asked for; 0 for a frame with no reply
    unsigned int shortestReply; // shorter ones fail the length check
    unsigned long subject;      // the address, serial number or key reports name
    const char* function;       // the name the records carry
    bool checkSend;
    // A search asks a key again after a time-out, up to this many times and
    // once more.
    int retries;
    // filled in by the exchange
    kesEExchangeStep step;
    int received;
    bool timedOut;
    unsigned int sentAt;
    unsigned int arrivedAt;
    int after; // bytes behind an accepted reply, on a watched line

    kesExchange(const unsigned char* i_pRequest, unsigned int i_uiRequestSize, unsigned char* o_pReply,
                unsigned int i_uiReplyLength, unsigned long i_ulSubject, const char* i_szFunction)
        : request(i_pRequest), requestSize(i_uiRequestSize), reply(o_pReply), replyLength(i_uiReplyLength),
          shortestReply(i_uiReplyLength), subject(i_ulSubject), function(i_szFunction), checkSend(true), retries(0),
          step(kesStepSend), received(0), timedOut(false), sentAt(0), arrivedAt(0), after(0)
    {
    }
};

// The checks of an exchange are the same for every frame of the bus; what
// follows a failed one is the frame's own.
struct kesLadder {
    // Measurement-style: the pauses are spent reading, and late replies are
    // followed; otherwise the pauses are slept as the table says.
    bool watchLine;
    kesEPause pauses[kesStepCount];
    // Searches: a key nobody answers is a result, not a failure; a time-out
    // asks again, and the answer pause comes before the reply is judged.
    bool silenceAnswers;
    unsigned int receiveTimeOut; // for the reply alone; 0: the channel's own
    kesEError lengthCode;
    // The report of a failed step; an empty text reports nothing.
    kesString (*describe)(kesEExchangeStep i_eStep, const kesExchange& i_exchange);
};

} // namespace kes

#endif
