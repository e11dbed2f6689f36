#include "kes_modbusrtu.h"

#include "error_capture.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

using namespace kes;

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes frame_bytes(const kesIModbusRtuFrame& i_frame)
{
    const unsigned char* buffer = i_frame.GetFrameBufferPtr();
    return Bytes(buffer, buffer + i_frame.GetFrameSize());
}

std::string hex(const Bytes& i_bytes)
{
    std::string text;
    char part[5];
    for (unsigned char b : i_bytes) {
        snprintf(part, sizeof(part), text.empty() ? "%02X" : " %02X", b);
        text += part;
    }
    return text;
}

const unsigned char DATA4[] = {0xDE, 0xAD, 0xBE, 0xEF};

template <class FRAME, class SETUP>
Bytes built(SETUP i_setup)
{
    FRAME frame;
    i_setup(frame);
    return frame_bytes(*frame.GetModbusRtuFramePtr());
}

template <class FRAME>
Bytes built()
{
    return built<FRAME>([](FRAME&) {});
}

typedef kesModbusRtuReadHoldingRegistersFrame Holding;
typedef kesModbusRtuReadCoilsFrame Coils;
typedef kesModbusRtuReadDiscreteInputsFrame DiscreteInputs;
typedef kesModbusRtuReadInputRegistersFrame InputRegisters;
typedef kesModbusRtuWriteMultipleCoilsFrame MultipleCoils;
typedef kesModbusRtuWriteSingleCoilFrame SingleCoil;
typedef kesModbusRtuWriteSingleRegisterFrame SingleRegister;
typedef kesModbusRtuWriteMultipleRegistersFrame MultipleRegisters;

} // namespace

TEST(ModbusRtuFrame, BytesOnTheWire)
{
    kes_test::ErrorCapture errors;
    // CRCs from an independent Modbus implementation (pymodbus computeCRC)
    const std::vector<std::tuple<const char*, std::string, Bytes>> cases = {
        {"new read holding registers", "00 03 00 00 00 00 44 1B", built<Holding>()},
        {"unit 1, registers 100 and 2", "01 03 00 64 00 02 85 D4",
         built<Holding>([](Holding& f) { f.SetUnitID(1), f.SetRegisters(100, 2); })},
        {"panel read at bus address 300", "01 03 01 2C 00 02 04 3E",
         built<Holding>([](Holding& f) { f.SetRegisters(300, 2), f.SetUnitID(1); })},
        {"new read coils", "00 01 00 00 00 00 3D DB", built<Coils>()},
        {"new read discrete inputs", "00 02 00 00 00 00 79 DB", built<DiscreteInputs>()},
        {"new read input registers", "00 04 00 00 00 00 F1 DB", built<InputRegisters>()},
        {"new write single coil", "00 05 00 00 00 00 CC 1B", built<SingleCoil>()},
        {"single coil on 1", "00 05 00 05 FF 00 9D EA", built<SingleCoil>([](SingleCoil& f) { f.SetRegister(5, 1); })},
        {"single coil on 2 counts as on", "00 05 00 05 FF 00 9D EA",
         built<SingleCoil>([](SingleCoil& f) { f.SetRegister(5, 2); })},
        {"single coil off", "00 05 00 05 00 00 DC 1A",
         built<SingleCoil>([](SingleCoil& f) { f.SetRegister(5, 1), f.SetRegister(5, 0); })},
        {"new write single register", "00 06 00 00 00 00 88 1B", built<SingleRegister>()},
        {"single register 5 = 0x1234", "00 06 00 05 12 34 95 6D",
         built<SingleRegister>([](SingleRegister& f) { f.SetRegister(5, 0x1234); })},
        {"new write multiple coils is 8 bytes", "00 0F 00 00 00 00 54 1A", built<MultipleCoils>()},
        {"new write multiple registers", "00 10 00 00 00 00 C1 D8", built<MultipleRegisters>()},
        {"header before data", "01 10 00 0A 00 02 04 DE AD BE EF E8 35",
         built<MultipleRegisters>(
             [](MultipleRegisters& f) { f.SetUnitID(1), f.SetRegisters(10, 2), f.SetData(DATA4, 4); })},
        {"header after data", "01 10 00 0A 00 02 04 DE AD BE EF E8 35",
         built<MultipleRegisters>(
             [](MultipleRegisters& f) { f.SetData(DATA4, 4), f.SetRegisters(10, 2), f.SetUnitID(1); })},
    };
    for (const auto& c : cases)
        EXPECT_EQ(std::get<1>(c), hex(std::get<2>(c))) << std::get<0>(c);
    EXPECT_EQ(0u, errors.Count()) << errors.Dump();
}

TEST(ModbusRtuFrame, EverySetterRefreshesTheCrc)
{
    const std::vector<std::pair<const char*, std::function<void(kesModbusRtuFrame&)>>> setters = {
        {"unit", [](kesModbusRtuFrame& f) { f.SetUnitID(7); }},
        {"function code", [](kesModbusRtuFrame& f) { f.SetFunctionCodeID(kesModbusFunctionReadInputRegisters); }},
        {"registers", [](kesModbusRtuFrame& f) { f.SetRegisters(0x1234, 9); }},
        {"data", [](kesModbusRtuFrame& f) { f.SetData(DATA4, 4); }},
    };
    for (const auto& setter : setters) {
        kesModbusRtuFrame frame;
        frame.SetFunctionCodeID(kesModbusFunctionReadHoldingRegisters);
        Bytes before = frame_bytes(frame);
        setter.second(frame);
        Bytes after = frame_bytes(frame);
        EXPECT_TRUE(frame.HasValidCrc()) << setter.first;
        EXPECT_NE(Bytes(before.end() - 2, before.end()), Bytes(after.end() - 2, after.end())) << setter.first;
    }
}

TEST(ModbusRtuFrame, ReplyFieldsAndCrc)
{
    unsigned char good[] = {0x01, 0x03, 0x04, 0x00, 0x01, 0x00, 0x02, 0x2A, 0x32};
    kesModbusRtuFrame reply(good, sizeof(good));
    EXPECT_TRUE(reply.HasValidCrc());
    EXPECT_FALSE(reply.IsException());
    EXPECT_EQ(0u, reply.GetExceptionCode());
    EXPECT_EQ("", reply.GetExceptionDescription());
    ASSERT_EQ(4u, reply.GetDataSize(true));
    EXPECT_EQ(reply.GetFrameBufferPtr() + 3, reply.GetDataPtr(true));
    // the copy is the frame's own
    good[3] = 0x55;
    EXPECT_EQ(0x00, reply.GetDataPtr(true)[0]);

    unsigned char bad[] = {0x01, 0x03, 0x04, 0x00, 0x01, 0x00, 0x02, 0x2A, 0x33};
    kesModbusRtuFrame broken(bad, sizeof(bad));
    EXPECT_FALSE(broken.HasValidCrc());
    EXPECT_EQ(1, broken.GetUnitID());
    EXPECT_EQ(3, broken.GetFunctionCodeID());
    kesString dump;
    kesModbusRtuFrame::DumpFrame(&broken, &dump);
    EXPECT_EQ("[0x01][0x03][0x04][0x00][0x01][0x00][0x02][0x2A][0x33]", dump);
}

TEST(ModbusRtuFrame, ExceptionReply)
{
    unsigned char bytes[] = {0x01, 0x83, 0x02, 0xC0, 0xF1};
    kesModbusRtuFrame reply(bytes, sizeof(bytes));
    EXPECT_TRUE(reply.HasValidCrc());
    EXPECT_TRUE(reply.IsException());
    EXPECT_EQ(2u, reply.GetExceptionCode());
    EXPECT_EQ("E:0x2 Illegal Data Address:\nDependant on the request check frame", reply.GetExceptionDescription());
    EXPECT_EQ(nullptr, reply.GetDataPtr(true));
    EXPECT_EQ(0u, reply.GetDataSize(true));

    // bit 7 decides, even for a code no function has
    unsigned char odd[] = {0x01, 0xFF, 0x01, 0x00, 0x00};
    EXPECT_TRUE(kesModbusRtuFrame(odd, sizeof(odd)).IsException());
}

TEST(ModbusRtuFrame, ExceptionTexts)
{
    // the long texts are pinned by their first and last lines
    const std::vector<std::tuple<unsigned char, const char*, const char*>> cases = {
        {0, "UnKnown Exception", ""},
        {1, "E:0x1 Illegal Function Code:\nThe function code is unknown by the server", ""},
        {2, "E:0x2 Illegal Data Address:\nDependant on the request check frame", ""},
        {3, "E:0x3 Illegal Data Value:\nDependant on the request check frame", ""},
        {4, "E:0x4 Server Failure\nThe server failed during the execution", ""},
        {5, "E:0x5 Acknowledge\n", "\nservice invocation receipt."},
        {6, "E:0x6 Server Busy\n", "\nand when to re-send the request."},
        {7, "E:0x7 Negative Acknowledge\n",
         "\nThe master should request diagnostic or error information from the slave."},
        {8, "E:0x8 Memory Parity Error\n",
         "\nThe master can retry the request, but service may be required on the slave device."},
        {9, "UnKnown Exception", ""},
        {10, "E:0xA Gateway problem\nGateway paths not available.", ""},
        {11, "E:0xB Gateway problem\nThe targeted device failed to respond.The gateway generates this exception.", ""},
        {12, "UnKnown Exception", ""},
        {255, "UnKnown Exception", ""},
    };
    for (const auto& c : cases) {
        unsigned char bytes[] = {0x01, 0x84, std::get<0>(c), 0x00, 0x00};
        kesModbusRtuFrame reply(bytes, sizeof(bytes));
        std::string text = reply.GetExceptionDescription();
        std::string head = std::get<1>(c);
        std::string tail = std::get<2>(c);
        EXPECT_EQ(std::get<0>(c), reply.GetExceptionCode());
        bool matches = tail.empty() ? text == head
                                    : text.rfind(head, 0) == 0 && text.size() > tail.size() &&
                                          text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
        EXPECT_TRUE(matches) << "code " << int(std::get<0>(c)) << ": " << text;
    }
}

TEST(ModbusRtuFrame, DataViews)
{
    struct ViewCase {
        const char* name;
        Bytes frame;
        bool reply;
        int offset; // -1: null
        unsigned int size;
    };
    const ViewCase cases[] = {
        {"read request", {1, 3, 0, 100, 0, 2, 0, 0}, false, 4, 2},
        {"read reply", {1, 3, 4, 0, 1, 0, 2, 0, 0}, true, 3, 4},
        {"coil reply", {1, 1, 1, 5, 0, 0}, true, 3, 1},
        {"single write request", {1, 6, 0, 5, 0x12, 0x34, 0, 0}, false, 4, 2},
        {"single write reply", {1, 6, 0, 5, 0x12, 0x34, 0, 0}, true, 4, 2},
        {"multiple write request", {1, 16, 0, 10, 0, 2, 4, 9, 9, 9, 9, 0, 0}, false, 7, 4},
        {"multiple write reply", {1, 16, 0, 10, 0, 2, 0, 0}, true, 4, 2},
        {"multiple write request without data", {1, 16, 0, 0, 0, 0, 0, 0}, false, -1, 0},
        {"unknown code, data frame", {1, 0x41, 0, 0, 0, 0, 2, 7, 7, 0, 0}, true, 7, 2},
        {"exception of 9 bytes", {1, 0x90, 2, 0, 0, 0, 0, 0, 0}, true, -1, 0},
        // sizes that point past the buffer must not be handed out
        {"read reply claiming too much", {1, 3, 200, 0, 1, 0, 0}, true, -1, 0},
        {"data frame claiming too much", {1, 16, 0, 0, 0, 0, 50, 1, 2, 3, 0, 0}, false, -1, 0},
        {"read request cut short", {1, 3, 0, 100}, false, -1, 0},
    };
    for (const ViewCase& c : cases) {
        Bytes copy = c.frame;
        kesModbusRtuFrame frame(copy.data(), (unsigned int)copy.size());
        const unsigned char* expected = c.offset < 0 ? nullptr : frame.GetFrameBufferPtr() + c.offset;
        EXPECT_EQ(expected, frame.GetDataPtr(c.reply)) << c.name;
        EXPECT_EQ(c.size, frame.GetDataSize(c.reply)) << c.name;
    }
}

TEST(ModbusRtuFrame, ReadFramesArePinnedToTheRequestView)
{
    kesModbusRtuReadHoldingRegistersFrame holding;
    kesModbusRtuReadCoilsFrame coils;
    kesModbusRtuReadDiscreteInputsFrame inputs;
    kesModbusRtuReadInputRegistersFrame registers;
    holding.SetRegisters(0x0102, 0x0304);
    EXPECT_EQ(holding.GetFrameBufferPtr() + 4, holding.GetDataPtr(true));
    EXPECT_EQ(2u, holding.GetDataSize(true));
    // through the base the override still holds
    EXPECT_EQ(holding.GetDataPtr(false), holding.GetModbusRtuFramePtr()->GetDataPtr(true));
    EXPECT_EQ(coils.GetDataPtr(false), coils.GetDataPtr(true));
    EXPECT_EQ(inputs.GetDataSize(false), inputs.GetDataSize(true));
    EXPECT_EQ(registers.GetDataPtr(false), registers.GetDataPtr(true));
}

TEST(ModbusRtuFrame, ResponseBufferSize)
{
    const struct {
        kesEModbusFunctionCode code;
        unsigned short count;
        unsigned int expected;
    } cases[] = {
        {kesModbusFunctionReadCoils, 8, 6},
        {kesModbusFunctionReadCoils, 9, 7},
        {kesModbusFunctionReadDiscreteInputs, 1, 6},
        {kesModbusFunctionReadHoldingRegisters, 25, 55},
        {kesModbusFunctionReadInputRegisters, 2, 9},
        {kesModbusFunctionReadHoldingRegisters, 0xFFFF, 131075},
        {kesModbusFunctionWriteSingleCoil, 0xFF00, 8},
        {kesModbusFunctionWriteSingleRegister, 3, 8},
        {kesModbusFunctionWriteMultipleCoils, 3, 8},
        {kesModbusFunctionWriteMultipleRegisters, 30, 8},
        {kesEModbusFunctionCode(0x83), 2, 0},
    };
    for (const auto& c : cases) {
        kesModbusRtuFrame frame;
        frame.SetFunctionCodeID(c.code);
        frame.SetRegisters(0, c.count);
        EXPECT_EQ(c.expected, frame.GetResponseBufferSize()) << "code " << int(c.code) << " count " << c.count;
    }
}

TEST(ModbusRtuFrame, SetData)
{
    kesModbusRtuFrame frame;
    frame.SetUnitID(2);
    frame.SetFunctionCodeID(kesModbusFunctionWriteMultipleRegisters);
    frame.SetRegisters(10, 2);
    frame.SetData(DATA4, 4);
    ASSERT_EQ(13u, frame.GetFrameSize());
    EXPECT_EQ(4, frame.GetFrameBufferPtr()[6]);
    EXPECT_EQ(2, frame.GetUnitID());
    EXPECT_EQ(10, frame.GetStartRegister());
    EXPECT_EQ(2, frame.GetRegistersCount());

    // registers leave the size byte and the data alone
    frame.SetRegisters(11, 7);
    EXPECT_EQ(4, frame.GetFrameBufferPtr()[6]);
    EXPECT_EQ(Bytes(DATA4, DATA4 + 4), Bytes(frame.GetDataPtr(false), frame.GetDataPtr(false) + 4));

    // largest frame
    unsigned char big[255];
    for (int i = 0; i < 255; ++i)
        big[i] = (unsigned char)i;
    frame.SetData(big, 255);
    EXPECT_EQ(264u, frame.GetFrameSize());
    EXPECT_TRUE(frame.HasValidCrc());
    EXPECT_EQ(255u, frame.GetDataSize(false));
}

TEST(ModbusRtuFrame, SetDataRefusesEmptyInput)
{
    kesModbusRtuWriteMultipleCoilsFrame frame;
    frame.SetData(DATA4, 4);
    Bytes before = frame_bytes(*frame.GetModbusRtuFramePtr());
    kes_test::ErrorCapture errors;
    frame.SetData(nullptr, 4);
    frame.SetData(DATA4, 0);
    EXPECT_EQ(before, frame_bytes(*frame.GetModbusRtuFramePtr()));
    EXPECT_EQ(2u, errors.CountContaining("pData or size == 0"));
    EXPECT_EQ(std::vector<unsigned int>(2, kesErrorInvalidArgument), errors.Codes());
}

TEST(ModbusRtuFrame, Downcasts)
{
    kesModbusRtuFrame plain;
    kesModbusRtuReadCoilsFrame coils;
    kesModbusRtuReadDiscreteInputsFrame inputs;
    kesModbusRtuReadInputRegistersFrame inputRegisters;
    kesModbusRtuReadHoldingRegistersFrame holding;
    kesModbusRtuWriteSingleCoilFrame singleCoil;
    kesModbusRtuWriteMultipleCoilsFrame multipleCoils;
    kesModbusRtuWriteSingleRegisterFrame singleRegister;
    kesModbusRtuWriteMultipleRegistersFrame multipleRegisters;

    kesIModbusRtuFrame* frames[] = {
        &plain,
        coils.GetModbusRtuFramePtr(),
        inputs.GetModbusRtuFramePtr(),
        inputRegisters.GetModbusRtuFramePtr(),
        holding.GetModbusRtuFramePtr(),
        singleCoil.GetModbusRtuFramePtr(),
        multipleCoils.GetModbusRtuFramePtr(),
        singleRegister.GetModbusRtuFramePtr(),
        multipleRegisters.GetModbusRtuFramePtr(),
    };
    // row: frame, column: which downcast answers with the object itself
    for (size_t row = 0; row < 9; ++row) {
        kesIModbusRtuFrame* f = frames[row];
        const void* answers[] = {
            f->GetModbusRtuFramePtr(),
            f->GetModbusRtuReadCoilsFramePtr(),
            f->GetModbusRtuReadDiscreteInputsFramePtr(),
            f->GetModbusRtuReadInputRegistersFramePtr(),
            f->GetModbusRtuReadHoldingRegistersFramePtr(),
            f->GetModbusRtuWriteSinglrCoilFramePtr(),
            f->GetModbusRtuWriteMultipleCoilsFramePtr(),
            f->GetModbusRtuWriteSingleRegisterFramePtr(),
            f->GetModbusRtuWriteMultipleRegistersFramePtr(),
        };
        EXPECT_NE(nullptr, answers[0]) << row;
        for (size_t column = 1; column < 9; ++column)
            EXPECT_EQ(column == row, answers[column] != nullptr) << "frame " << row << " downcast " << column;
    }
    EXPECT_EQ(&holding, holding.GetModbusRtuReadHoldingRegistersFramePtr());
    EXPECT_EQ(&singleCoil, singleCoil.GetModbusRtuWriteSinglrCoilFramePtr());
}

TEST(ModbusRtuFrame, DumpFrame)
{
    kesModbusRtuReadHoldingRegistersFrame frame;
    kesString text("keep");
    kesModbusRtuFrame::DumpFrame(nullptr, &text);
    EXPECT_EQ("keep", text);
    kesModbusRtuFrame::DumpFrame(frame.GetModbusRtuFramePtr(), nullptr);

    kesModbusRtuFrame::DumpFrame(frame.GetModbusRtuFramePtr(), &text);
    EXPECT_EQ("[0x00][0x03][0x00][0x00][0x00][0x00][0x44][0x1B]", text);
}

TEST(ModbusRtuFrame, ShortFramesAreReadSafely)
{
    const Bytes cases[] = {{0x01}, {0x01, 0x83}, {0x01, 0x03, 0x02}, {0x01, 0x03, 0x02, 0x00, 0x01}};
    for (const Bytes& c : cases) {
        Bytes copy = c;
        kesModbusRtuFrame frame(copy.data(), (unsigned int)copy.size());
        EXPECT_EQ(c.size(), frame.GetFrameSize());
        EXPECT_EQ(c[0], frame.GetUnitID());
        frame.GetStartRegister();
        frame.GetRegistersCount();
        frame.GetExceptionDescription();
        frame.GetResponseBufferSize();
        EXPECT_EQ(nullptr, frame.GetDataPtr(true));
        EXPECT_EQ(nullptr, frame.GetDataPtr(false));
        EXPECT_FALSE(c.size() == 1 && frame.HasValidCrc());
        // writes past the end are dropped, not made
        frame.SetRegisters(0xFFFF, 0xFFFF);
        EXPECT_EQ(c.size(), frame.GetFrameSize());
    }
    kesModbusRtuFrame empty(nullptr, 5);
    EXPECT_EQ(8u, empty.GetFrameSize());
}
