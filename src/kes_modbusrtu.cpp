#include "kes_modbusrtu.h"

#include "kes_error.h"

#include <cstring>
#include <new>

namespace kes {

namespace {

const unsigned int DEFAULT_FRAME_SIZE = 8;
// unit, function code, start register, count: what SetData keeps
const unsigned int FRAME_HEADER_SIZE = 6;
const unsigned int DATA_FRAME_OVERHEAD = 9;
const unsigned int CRC_SIZE = 2;
const unsigned char EXCEPTION_BIT = 0x80;

const char* const EXCEPTION_UNKNOWN = "UnKnown Exception";

const char* const EXCEPTION_TEXTS[] = {
    nullptr,
    "E:0x1 Illegal Function Code:\nThe function code is unknown by the server",
    "E:0x2 Illegal Data Address:\nDependant on the request check frame",
    "E:0x3 Illegal Data Value:\nDependant on the request check frame",
    "E:0x4 Server Failure\nThe server failed during the execution",
    "E:0x5 Acknowledge\nThe server accepted the service invocation but the\n"
    "service requires a relatively long time to execute. The\n"
    "server therefore returns only an acknowledgement of the\n"
    "service invocation receipt.",
    "E:0x6 Server Busy\nThe server was unable to accept the MB Request PDU.\n"
    "The client application has the responsibility of deciding if\n"
    "and when to re-send the request.",
    "E:0x7 Negative Acknowledge\nThe slave cannot perform the program function received in the query.\n"
    "This code is returned for an unsuccessful programming request using\n"
    "function code 13 or 14 decimal.\n"
    "The master should request diagnostic or error information from the slave.",
    "E:0x8 Memory Parity Error\nSpecialized use in conjunction with function codes 20 and 21 and reference\n"
    "type 6, to indicate that the extended file area failed to pass a consistency check.\n"
    "The slave attempted to read extended memory or record file, but detected\n"
    "a parity error in memory.\n"
    "The master can retry the request, but service may be required on the slave device.",
    nullptr,
    "E:0xA Gateway problem\nGateway paths not available.",
    "E:0xB Gateway problem\nThe targeted device failed to respond.The gateway generates this exception.",
};
const unsigned int EXCEPTION_TEXT_COUNT = sizeof(EXCEPTION_TEXTS) / sizeof(EXCEPTION_TEXTS[0]);

const char* const OUT_OF_MEMORY = "Can not allocate kesModbusRtuFrame memory";

} // namespace

unsigned short kesModbusRtuCrc(const unsigned char* i_pData, unsigned int i_size)
{
    unsigned short crc = 0xFFFF;
    if (i_pData == nullptr)
        return crc;
    for (unsigned int i = 0; i < i_size; ++i) {
        crc ^= i_pData[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (unsigned short)((crc >> 1) ^ 0xA001) : (unsigned short)(crc >> 1);
    }
    return crc;
}

kesModbusRtuFrame::kesModbusRtuFrame() : m_pBuffer(nullptr), m_uSize(0)
{
    init_buffer(DEFAULT_FRAME_SIZE);
}

kesModbusRtuFrame::kesModbusRtuFrame(unsigned char* i_pData, unsigned int i_size) : m_pBuffer(nullptr), m_uSize(0)
{
    if (i_pData == nullptr || i_size == 0) {
        init_buffer(DEFAULT_FRAME_SIZE);
        return;
    }
    m_pBuffer = new (std::nothrow) unsigned char[i_size];
    if (m_pBuffer == nullptr) {
        KES_LOG(kesErrorOutOfMemory, OUT_OF_MEMORY);
        return;
    }
    memcpy(m_pBuffer, i_pData, i_size);
    m_uSize = i_size;
}

kesModbusRtuFrame::~kesModbusRtuFrame()
{
    delete[] m_pBuffer;
    m_pBuffer = nullptr;
    m_uSize = 0;
}

void kesModbusRtuFrame::init_buffer(unsigned int i_size)
{
    delete[] m_pBuffer;
    m_pBuffer = nullptr;
    m_uSize = 0;
    m_pBuffer = new (std::nothrow) unsigned char[i_size]();
    if (m_pBuffer == nullptr) {
        KES_LOG(kesErrorOutOfMemory, OUT_OF_MEMORY);
        return;
    }
    m_uSize = i_size;
}

unsigned char kesModbusRtuFrame::get_byte(unsigned int i_index) const
{
    return (m_pBuffer != nullptr && i_index < m_uSize) ? m_pBuffer[i_index] : 0;
}

void kesModbusRtuFrame::set_byte(unsigned int i_index, unsigned char i_value)
{
    if (m_pBuffer != nullptr && i_index < m_uSize)
        m_pBuffer[i_index] = i_value;
}

void kesModbusRtuFrame::compute_crc_check()
{
    if (m_pBuffer == nullptr || m_uSize < CRC_SIZE)
        return;
    unsigned short crc = kesModbusRtuCrc(m_pBuffer, m_uSize - CRC_SIZE);
    m_pBuffer[m_uSize - 2] = (unsigned char)(crc & 0xFF);
    m_pBuffer[m_uSize - 1] = (unsigned char)(crc >> 8);
}

bool kesModbusRtuFrame::HasValidCrc() const
{
    if (m_pBuffer == nullptr || m_uSize < CRC_SIZE)
        return false;
    unsigned short stored = (unsigned short)(m_pBuffer[m_uSize - 2] | (m_pBuffer[m_uSize - 1] << 8));
    return stored == kesModbusRtuCrc(m_pBuffer, m_uSize - CRC_SIZE);
}

bool kesModbusRtuFrame::IsException() const
{
    return (get_byte(1) & EXCEPTION_BIT) != 0;
}

unsigned int kesModbusRtuFrame::GetExceptionCode() const
{
    return IsException() ? get_byte(2) : 0;
}

kesString kesModbusRtuFrame::GetExceptionDescription() const
{
    if (!IsException())
        return kesString();
    unsigned int code = GetExceptionCode();
    if (code < EXCEPTION_TEXT_COUNT && EXCEPTION_TEXTS[code] != nullptr)
        return kesString(EXCEPTION_TEXTS[code]);
    return kesString(EXCEPTION_UNKNOWN);
}

unsigned char kesModbusRtuFrame::GetUnitID() const
{
    return get_byte(0);
}

unsigned char kesModbusRtuFrame::GetFunctionCodeID() const
{
    return get_byte(1);
}

unsigned short kesModbusRtuFrame::GetStartRegister() const
{
    return (unsigned short)((get_byte(2) << 8) | get_byte(3));
}

unsigned short kesModbusRtuFrame::GetRegistersCount() const
{
    return (unsigned short)((get_byte(4) << 8) | get_byte(5));
}

unsigned int kesModbusRtuFrame::GetFrameSize() const
{
    return m_uSize;
}

unsigned char* kesModbusRtuFrame::GetFrameBufferPtr() const
{
    return m_pBuffer;
}

kesModbusRtuFrame::data_view kesModbusRtuFrame::get_data_view(bool i_reply) const
{
    data_view view = {0, 0, false};
    switch (get_byte(1)) {
    case kesModbusFunctionReadCoils:
    case kesModbusFunctionReadDiscreteInputs:
    case kesModbusFunctionReadHoldingRegisters:
    case kesModbusFunctionReadInputRegisters:
        view = i_reply ? data_view{3, get_byte(2), true} : data_view{4, 2, true};
        break;
    case kesModbusFunctionWriteSingleCoil:
    case kesModbusFunctionWriteSingleRegister:
        view = data_view{4, 2, true};
        break;
    case kesModbusFunctionWriteMultipleCoils:
    case kesModbusFunctionWriteMultipleRegisters:
        if (i_reply) {
            view = data_view{4, 2, true};
            break;
        }
        // the request carries its data like any other frame
        [[fallthrough]];
    default:
        view.offset = 7;
        view.has_pointer = m_uSize > 9;
        view.size = m_uSize > 8 ? get_byte(6) : 0;
        break;
    }
    // A size byte that points past the CRC would hand the caller a read
    // beyond the buffer: such a view is empty.
    if (m_pBuffer == nullptr || m_uSize < CRC_SIZE || view.offset + view.size > m_uSize - CRC_SIZE)
        return data_view{0, 0, false};
    return view;
}

unsigned char* kesModbusRtuFrame::GetDataPtr(bool i_reply) const
{
    data_view view = get_data_view(i_reply);
    return view.has_pointer ? m_pBuffer + view.offset : nullptr;
}

unsigned int kesModbusRtuFrame::GetDataSize(bool i_reply) const
{
    return get_data_view(i_reply).size;
}

unsigned int kesModbusRtuFrame::GetResponseBufferSize() const
{
    unsigned int count = GetRegistersCount();
    switch (GetFunctionCodeID()) {
    case kesModbusFunctionReadCoils:
    case kesModbusFunctionReadDiscreteInputs:
        return (count + 7) / 8 + 5;
    case kesModbusFunctionReadHoldingRegisters:
    case kesModbusFunctionReadInputRegisters:
        return 2 * count + 5;
    case kesModbusFunctionWriteSingleCoil:
    case kesModbusFunctionWriteSingleRegister:
    case kesModbusFunctionWriteMultipleCoils:
    case kesModbusFunctionWriteMultipleRegisters:
        return 8;
    default:
        return 0;
    }
}

void kesModbusRtuFrame::SetUnitID(unsigned char i_unit)
{
    set_byte(0, i_unit);
    compute_crc_check();
}

void kesModbusRtuFrame::SetFunctionCodeID(kesEModbusFunctionCode i_code)
{
    set_byte(1, (unsigned char)i_code);
    compute_crc_check();
}

void kesModbusRtuFrame::SetRegisters(unsigned short i_start, unsigned short i_count)
{
    set_byte(2, (unsigned char)(i_start >> 8));
    set_byte(3, (unsigned char)(i_start & 0xFF));
    set_byte(4, (unsigned char)(i_count >> 8));
    set_byte(5, (unsigned char)(i_count & 0xFF));
    compute_crc_check();
}

void kesModbusRtuFrame::SetData(const unsigned char* i_pData, unsigned char i_size)
{
    if (i_pData == nullptr || i_size == 0) {
        KES_LOG_IN(kesErrorInvalidArgument, "pData or size == 0", "SetData");
        return;
    }
    unsigned char header[FRAME_HEADER_SIZE] = {0};
    for (unsigned int i = 0; i < FRAME_HEADER_SIZE; ++i)
        header[i] = get_byte(i);
    init_buffer(i_size + DATA_FRAME_OVERHEAD);
    if (m_pBuffer == nullptr)
        return;
    memcpy(m_pBuffer, header, FRAME_HEADER_SIZE);
    m_pBuffer[FRAME_HEADER_SIZE] = i_size;
    memcpy(m_pBuffer + FRAME_HEADER_SIZE + 1, i_pData, i_size);
    compute_crc_check();
}

void kesModbusRtuFrame::DumpFrame(const kesIModbusRtuFrame* i_pFrame, kesString* o_pText)
{
    if (i_pFrame == nullptr || o_pText == nullptr)
        return;
    o_pText->Clear();
    const unsigned char* buffer = i_pFrame->GetFrameBufferPtr();
    if (buffer == nullptr)
        return;
    unsigned int size = i_pFrame->GetFrameSize();
    for (unsigned int i = 0; i < size; ++i)
        o_pText->AddFormat(16, "[0x%.2X]", buffer[i]);
}

kesModbusRtuReadCoilsFrame::kesModbusRtuReadCoilsFrame()
{
    SetFunctionCodeID(kesModbusFunctionReadCoils);
}

kesModbusRtuReadDiscreteInputsFrame::kesModbusRtuReadDiscreteInputsFrame()
{
    SetFunctionCodeID(kesModbusFunctionReadDiscreteInputs);
}

kesModbusRtuReadHoldingRegistersFrame::kesModbusRtuReadHoldingRegistersFrame()
{
    SetFunctionCodeID(kesModbusFunctionReadHoldingRegisters);
}

kesModbusRtuReadInputRegistersFrame::kesModbusRtuReadInputRegistersFrame()
{
    SetFunctionCodeID(kesModbusFunctionReadInputRegisters);
}

kesModbusRtuWriteSingleCoilFrame::kesModbusRtuWriteSingleCoilFrame()
{
    SetFunctionCodeID(kesModbusFunctionWriteSingleCoil);
}

void kesModbusRtuWriteSingleCoilFrame::SetRegister(unsigned short i_register, unsigned char i_on)
{
    SetRegisters(i_register, i_on != 0 ? 0xFF00 : 0x0000);
}

kesModbusRtuWriteSingleRegisterFrame::kesModbusRtuWriteSingleRegisterFrame()
{
    SetFunctionCodeID(kesModbusFunctionWriteSingleRegister);
}

void kesModbusRtuWriteSingleRegisterFrame::SetRegister(unsigned short i_register, unsigned short i_value)
{
    SetRegisters(i_register, i_value);
}

kesModbusRtuWriteMultipleCoilsFrame::kesModbusRtuWriteMultipleCoilsFrame()
{
    SetFunctionCodeID(kesModbusFunctionWriteMultipleCoils);
}

kesModbusRtuWriteMultipleRegistersFrame::kesModbusRtuWriteMultipleRegistersFrame()
{
    SetFunctionCodeID(kesModbusFunctionWriteMultipleRegisters);
}

} // namespace kes
