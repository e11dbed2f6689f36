#include "kes_modbusrtu.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "error_capture.h"
#include "test_gateway.h"

using namespace kes;
using kes_test::Bytes;
using kes_test::Hex;
using kes_test::ToHex;
using kes_test::WithCrc;

namespace {

Bytes frame_bytes(const kesIModbusRtuFrame& i_frame)
{
    return Bytes(i_frame.GetFrameBufferPtr(), i_frame.GetFrameBufferPtr() + i_frame.GetFrameSize());
}

const unsigned char DATA4[] = {0xDE, 0xAD, 0xBE, 0xEF};

// The bytes of a new FRAME after the statements that follow it, on f.
// clang-format off
#define BUILT(FRAME, ...) [] { FRAME f; __VA_ARGS__; return frame_bytes(*f.GetModbusRtuFramePtr()); }()
// clang-format on

typedef kesModbusRtuFrame Plain;
typedef kesModbusRtuReadHoldingRegistersFrame Holding;
typedef kesModbusRtuWriteSingleCoilFrame SingleCoil;
typedef kesModbusRtuWriteSingleRegisterFrame SingleRegister;
typedef kesModbusRtuWriteMultipleRegistersFrame MultipleRegisters;

} // namespace

TEST(ModbusRtuFrame, BytesOnTheWire)
{
    kes_test::ErrorCapture errors;
    // Literal CRCs come from an independent Modbus implementation; the others
    // from the test gateway's own CRC. Each setter must seal the frame anew.
    // clang-format off
    const struct { const char* name; Bytes expected, built; } rows[] = {
        {"new read holding registers", Hex("00 03 00 00 00 00 44 1B"), BUILT(Holding)},
        {"unit 1, registers 100 and 2", Hex("01 03 00 64 00 02 85 D4"),
         BUILT(Holding, f.SetUnitID(1), f.SetRegisters(100, 2))},
        {"panel read at bus address 300", Hex("01 03 01 2C 00 02 04 3E"),
         BUILT(Holding, f.SetRegisters(300, 2), f.SetUnitID(1))},
        {"new read coils", Hex("00 01 00 00 00 00 3D DB"), BUILT(kesModbusRtuReadCoilsFrame)},
        {"new read discrete inputs", Hex("00 02 00 00 00 00 79 DB"), BUILT(kesModbusRtuReadDiscreteInputsFrame)},
        {"new read input registers", Hex("00 04 00 00 00 00 F1 DB"), BUILT(kesModbusRtuReadInputRegistersFrame)},
        {"new write single coil", Hex("00 05 00 00 00 00 CC 1B"), BUILT(SingleCoil)},
        {"single coil on 1", Hex("00 05 00 05 FF 00 9D EA"), BUILT(SingleCoil, f.SetRegister(5, 1))},
        {"single coil on 2 counts as on", Hex("00 05 00 05 FF 00 9D EA"), BUILT(SingleCoil, f.SetRegister(5, 2))},
        {"single coil off", Hex("00 05 00 05 00 00 DC 1A"), BUILT(SingleCoil, f.SetRegister(5, 1), f.SetRegister(5, 0))},
        {"new write single register", Hex("00 06 00 00 00 00 88 1B"), BUILT(SingleRegister)},
        {"single register 5 = 0x1234", Hex("00 06 00 05 12 34 95 6D"), BUILT(SingleRegister, f.SetRegister(5, 0x1234))},
        {"new write multiple coils is 8 bytes", Hex("00 0F 00 00 00 00 54 1A"), BUILT(kesModbusRtuWriteMultipleCoilsFrame)},
        {"new write multiple registers", Hex("00 10 00 00 00 00 C1 D8"), BUILT(MultipleRegisters)},
        {"header before data", Hex("01 10 00 0A 00 02 04 DE AD BE EF E8 35"),
         BUILT(MultipleRegisters, f.SetUnitID(1), f.SetRegisters(10, 2), f.SetData(DATA4, 4))},
        {"header after data", Hex("01 10 00 0A 00 02 04 DE AD BE EF E8 35"),
         BUILT(MultipleRegisters, f.SetData(DATA4, 4), f.SetRegisters(10, 2), f.SetUnitID(1))},
        {"plain frame, code last", WithCrc(Hex("00 04 12 34 00 09")),
         BUILT(Plain, f.SetRegisters(0x1234, 9), f.SetFunctionCodeID(kesModbusFunctionReadInputRegisters))},
    };
    // clang-format on
    for (const auto& row : rows)
        EXPECT_EQ(ToHex(row.expected), ToHex(row.built)) << row.name;
    EXPECT_EQ(0u, errors.Count()) << errors.Dump();
    // a read request answers with its request view whichever is asked for
    Holding holding;
    holding.SetRegisters(0x0102, 0x0304);
    EXPECT_EQ(holding.GetFrameBufferPtr() + 4, holding.GetModbusRtuFramePtr()->GetDataPtr(true));
    EXPECT_EQ(2u, holding.GetDataSize(true));
    // empty data leaves the frame as it was
    Plain frame;
    frame.SetData(nullptr, 4), frame.SetData(DATA4, 0);
    EXPECT_EQ(Bytes(8, 0), frame_bytes(frame));
    EXPECT_EQ(2u, errors.CountContaining("pData or size == 0"));
    EXPECT_EQ(std::vector<unsigned int>(2, kesErrorInvalidArgument), errors.Codes());
}

// What a received frame tells about itself, however malformed it is.
TEST(ModbusRtuFrame, ReceivedFrames)
{
    // clang-format off
    // exception: its code, -1 for none; a view offset of -1: no pointer
    const struct { const char* name; Bytes bytes; bool crc; int exception, reply[2], request[2]; } rows[] = {
        {"read reply", Hex("01 03 04 00 01 00 02 2A 32"), true, -1, {3, 4}, {4, 2}},
        {"exception reply", Hex("01 83 02 C0 F1"), true, 2, {-1, 0}, {-1, 0}},
        {"bit 7 decides, even for a code no function has", Hex("01 FF 01 00 00"), false, 1, {-1, 0}, {-1, 0}},
        {"exception of 9 bytes", Hex("01 90 02 00 00 00 00 00 00"), false, 2, {-1, 0}, {-1, 0}},
        {"read request", Hex("01 03 00 64 00 02 00 00"), false, -1, {3, 0}, {4, 2}},
        {"coil reply", Hex("01 01 01 05 00 00"), false, -1, {3, 1}, {-1, 0}},
        {"single write", Hex("01 06 00 05 12 34 00 00"), false, -1, {4, 2}, {4, 2}},
        {"multiple write request", Hex("01 10 00 0A 00 02 04 09 09 09 09 00 00"), false, -1, {4, 2}, {7, 4}},
        {"multiple write reply", Hex("01 10 00 0A 00 02 00 00"), false, -1, {4, 2}, {-1, 0}},
        {"unknown code with data", Hex("01 41 00 00 00 00 02 07 07 00 00"), false, -1, {7, 2}, {7, 2}},
        // sizes that point past the buffer must not be handed out
        {"read reply claiming too much", Hex("01 03 C8 00 01 00 00"), false, -1, {-1, 0}, {-1, 0}},
        {"data frame claiming too much", Hex("01 10 00 00 00 00 32 01 02 03 00 00"), false, -1, {4, 2}, {-1, 0}},
        {"cut short: 4 bytes", Hex("01 03 00 64"), false, -1, {-1, 0}, {-1, 0}},
        {"cut short: 1 byte", Hex("01"), false, -1, {-1, 0}, {-1, 0}},
        {"cut short: 2 bytes", Hex("01 83"), false, 0, {-1, 0}, {-1, 0}},
        {"cut short: 5 bytes", Hex("01 03 02 00 01"), false, -1, {-1, 0}, {-1, 0}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes source = row.bytes;
        kesModbusRtuFrame frame(source.data(), static_cast<unsigned int>(source.size()));
        std::fill(source.begin(), source.end(), 0x55); // the frame keeps a copy of its own
        kesString text("old"), dump;
        kesModbusRtuFrame::DumpFrame(&frame, &text);
        for (unsigned char b : row.bytes)
            dump += "[0x" + ToHex(Bytes{b}) + "]";
        EXPECT_EQ(dump, text);
        EXPECT_EQ(row.crc, frame.HasValidCrc());
        EXPECT_EQ(row.exception >= 0, frame.IsException());
        EXPECT_EQ(row.exception >= 0 ? unsigned(row.exception) : 0u, frame.GetExceptionCode());
        EXPECT_EQ(row.bytes[0], frame.GetUnitID());
        frame.GetStartRegister(), frame.GetRegistersCount(), frame.GetResponseBufferSize(); // safe on any length
        for (int reply = 1; reply >= 0; --reply) {
            const int* view = reply ? row.reply : row.request; // offset, -1 for no pointer, and size
            EXPECT_EQ(view[0] < 0 ? nullptr : frame.GetFrameBufferPtr() + view[0], frame.GetDataPtr(reply)) << reply;
            EXPECT_EQ(unsigned(view[1]), frame.GetDataSize(reply)) << reply;
        }
        // writes past the end are dropped, not made
        frame.SetRegisters(0xFFFF, 0xFFFF);
        EXPECT_EQ(row.bytes.size(), frame.GetFrameSize());
    }
    kesModbusRtuFrame empty(nullptr, 5);
    EXPECT_EQ(8u, empty.GetFrameSize());
    kesString text("keep");
    kesModbusRtuFrame::DumpFrame(nullptr, &text);
    kesModbusRtuFrame::DumpFrame(&empty, nullptr);
    EXPECT_EQ("keep", text);
}

TEST(ModbusRtuFrame, ExceptionTextsAndBufferSizes)
{
    // the long texts are pinned by their first and last lines; no tail: the whole text
    // clang-format off
    const struct { unsigned char code; std::string head, tail; } texts[] = {
        {0, "UnKnown Exception", ""}, {9, "UnKnown Exception", ""}, {12, "UnKnown Exception", ""},
        {255, "UnKnown Exception", ""},
        {1, "E:0x1 Illegal Function Code:\nThe function code is unknown by the server", ""},
        {2, "E:0x2 Illegal Data Address:\nDependant on the request check frame", ""},
        {3, "E:0x3 Illegal Data Value:\nDependant on the request check frame", ""},
        {4, "E:0x4 Server Failure\nThe server failed during the execution", ""},
        {5, "E:0x5 Acknowledge\n", "\nservice invocation receipt."},
        {6, "E:0x6 Server Busy\n", "\nand when to re-send the request."},
        {7, "E:0x7 Negative Acknowledge\n", "\nThe master should request diagnostic or error information from the slave."},
        {8, "E:0x8 Memory Parity Error\n",
         "\nThe master can retry the request, but service may be required on the slave device."},
        {10, "E:0xA Gateway problem\nGateway paths not available.", ""},
        {11, "E:0xB Gateway problem\nThe targeted device failed to respond.The gateway generates this exception.", ""},
    };
    // clang-format on
    for (const auto& row : texts) {
        unsigned char bytes[] = {0x01, 0x84, row.code, 0x00, 0x00};
        std::string text = kesModbusRtuFrame(bytes, sizeof(bytes)).GetExceptionDescription();
        std::string tail = text.substr(text.size() - std::min(text.size(), row.tail.size()));
        EXPECT_TRUE(row.tail.empty() ? text == row.head : text.rfind(row.head, 0) == 0 && tail == row.tail)
            << "code " << int(row.code) << ": " << text;
    }
    unsigned char reply[] = {0x01, 0x03, 0x02, 0x00, 0x00};
    EXPECT_EQ("", kesModbusRtuFrame(reply, sizeof(reply)).GetExceptionDescription());

    // clang-format off
    const struct { kesEModbusFunctionCode code; unsigned short count; unsigned int expected; } sizes[] = {
        {kesModbusFunctionReadCoils, 8, 6}, {kesModbusFunctionReadCoils, 9, 7}, {kesModbusFunctionReadDiscreteInputs, 1, 6},
        {kesModbusFunctionReadHoldingRegisters, 25, 55}, {kesModbusFunctionReadHoldingRegisters, 0xFFFF, 131075},
        {kesModbusFunctionReadInputRegisters, 2, 9}, {kesModbusFunctionWriteSingleCoil, 0xFF00, 8},
        {kesModbusFunctionWriteSingleRegister, 3, 8}, {kesModbusFunctionWriteMultipleCoils, 3, 8},
        {kesModbusFunctionWriteMultipleRegisters, 30, 8}, {kesEModbusFunctionCode(0x83), 2, 0}
    };
    // clang-format on
    for (const auto& row : sizes) {
        kesModbusRtuFrame frame;
        frame.SetFunctionCodeID(row.code);
        frame.SetRegisters(0, row.count);
        EXPECT_EQ(row.expected, frame.GetResponseBufferSize()) << "code " << int(row.code) << " count " << row.count;
    }
}
