#ifndef KES_MODBUSRTU_H
#define KES_MODBUSRTU_H

#include "kes_string.h"

namespace kes {

enum kesEModbusFunctionCode : unsigned int {
    kesModbusFunctionReadCoils = 1,
    kesModbusFunctionReadDiscreteInputs = 2,
    kesModbusFunctionReadHoldingRegisters = 3,
    kesModbusFunctionReadInputRegisters = 4,
    kesModbusFunctionWriteSingleCoil = 5,
    kesModbusFunctionWriteSingleRegister = 6,
    kesModbusFunctionWriteMultipleCoils = 15,
    kesModbusFunctionWriteMultipleRegisters = 16
};

// CRC-16 of Modbus (reflected 0xA001, start 0xFFFF) over size bytes; the
// bus's own frames that have no frame object use it too.
unsigned short kesModbusRtuCrc(const unsigned char* i_pData, unsigned int i_size);

class kesModbusRtuFrame;
class kesModbusRtuReadCoilsFrame;
class kesModbusRtuReadDiscreteInputsFrame;
class kesModbusRtuReadInputRegistersFrame;
class kesModbusRtuReadHoldingRegistersFrame;
class kesModbusRtuWriteSingleCoilFrame;
class kesModbusRtuWriteMultipleCoilsFrame;
class kesModbusRtuWriteSingleRegisterFrame;
class kesModbusRtuWriteMultipleRegistersFrame;

class kesIModbusRtuFrame {
public:
    virtual ~kesIModbusRtuFrame() {}

    virtual kesModbusRtuFrame* GetModbusRtuFramePtr() { return nullptr; }
    virtual kesModbusRtuReadCoilsFrame* GetModbusRtuReadCoilsFramePtr() { return nullptr; }
    virtual kesModbusRtuReadDiscreteInputsFrame* GetModbusRtuReadDiscreteInputsFramePtr() { return nullptr; }
    virtual kesModbusRtuReadInputRegistersFrame* GetModbusRtuReadInputRegistersFramePtr() { return nullptr; }
    virtual kesModbusRtuReadHoldingRegistersFrame* GetModbusRtuReadHoldingRegistersFramePtr() { return nullptr; }
    virtual kesModbusRtuWriteSingleCoilFrame* GetModbusRtuWriteSinglrCoilFramePtr() { return nullptr; }
    virtual kesModbusRtuWriteMultipleCoilsFrame* GetModbusRtuWriteMultipleCoilsFramePtr() { return nullptr; }
    virtual kesModbusRtuWriteSingleRegisterFrame* GetModbusRtuWriteSingleRegisterFramePtr() { return nullptr; }
    virtual kesModbusRtuWriteMultipleRegistersFrame* GetModbusRtuWriteMultipleRegistersFramePtr() { return nullptr; }

    virtual bool HasValidCrc() const = 0;
    virtual bool IsException() const = 0;
    virtual unsigned int GetExceptionCode() const = 0;
    virtual kesString GetExceptionDescription() const = 0;
    virtual unsigned char GetUnitID() const = 0;
    virtual unsigned char GetFunctionCodeID() const = 0;
    virtual unsigned short GetStartRegister() const = 0;
    virtual unsigned short GetRegistersCount() const = 0;
    virtual unsigned int GetFrameSize() const = 0;
    virtual unsigned char* GetFrameBufferPtr() const = 0;
    virtual unsigned char* GetDataPtr(bool i_reply) const = 0;
    virtual unsigned int GetDataSize(bool i_reply) const = 0;
    virtual unsigned int GetResponseBufferSize() const = 0;
};

// One frame on the wire: a request being built or a reply as received.
// Reads past the end of a short (malformed) frame give 0 or null, and
// writes past it are dropped, so a truncated reply can still be dumped.
class kesModbusRtuFrame : public kesIModbusRtuFrame {
public:
    kesModbusRtuFrame();
    kesModbusRtuFrame(unsigned char* i_pData, unsigned int i_size);
    ~kesModbusRtuFrame() override;

    kesModbusRtuFrame(const kesModbusRtuFrame&) = delete;
    kesModbusRtuFrame& operator=(const kesModbusRtuFrame&) = delete;

    kesModbusRtuFrame* GetModbusRtuFramePtr() override { return this; }

    bool HasValidCrc() const override;
    bool IsException() const override;
    unsigned int GetExceptionCode() const override;
    kesString GetExceptionDescription() const override;
    unsigned char GetUnitID() const override;
    unsigned char GetFunctionCodeID() const override;
    unsigned short GetStartRegister() const override;
    unsigned short GetRegistersCount() const override;
    unsigned int GetFrameSize() const override;
    unsigned char* GetFrameBufferPtr() const override;
    unsigned char* GetDataPtr(bool i_reply) const override;
    unsigned int GetDataSize(bool i_reply) const override;
    unsigned int GetResponseBufferSize() const override;

    virtual void SetUnitID(unsigned char i_unit);
    virtual void SetFunctionCodeID(kesEModbusFunctionCode i_code);
    virtual void SetRegisters(unsigned short i_start, unsigned short i_count);
    virtual void SetData(const unsigned char* i_pData, unsigned char i_size);

    static void DumpFrame(const kesIModbusRtuFrame* i_pFrame, kesString* o_pText);

private:
    struct data_view {
        unsigned int offset;
        unsigned int size;
        bool has_pointer;
    };

    void init_buffer(unsigned int i_size);
    void compute_crc_check();
    unsigned char get_byte(unsigned int i_index) const;
    void set_byte(unsigned int i_index, unsigned char i_value);
    data_view get_data_view(bool i_reply) const;

    unsigned char* m_pBuffer;
    unsigned int m_uSize;
};

// What every function frame forwards unchanged, and its downcasts: the
// function frames differ only in the rows of the table in their class body.
#define KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(CLASS, DOWNCAST)            \
public:                                                                  \
    kesModbusRtuFrame* GetModbusRtuFramePtr() override                   \
    {                                                                    \
        return this;                                                     \
    }                                                                    \
    CLASS* DOWNCAST() override                                           \
    {                                                                    \
        return this;                                                     \
    }                                                                    \
    using kesModbusRtuFrame::GetModbusRtuReadCoilsFramePtr;              \
    using kesModbusRtuFrame::GetModbusRtuReadDiscreteInputsFramePtr;     \
    using kesModbusRtuFrame::GetModbusRtuReadInputRegistersFramePtr;     \
    using kesModbusRtuFrame::GetModbusRtuReadHoldingRegistersFramePtr;   \
    using kesModbusRtuFrame::GetModbusRtuWriteSinglrCoilFramePtr;        \
    using kesModbusRtuFrame::GetModbusRtuWriteMultipleCoilsFramePtr;     \
    using kesModbusRtuFrame::GetModbusRtuWriteSingleRegisterFramePtr;    \
    using kesModbusRtuFrame::GetModbusRtuWriteMultipleRegistersFramePtr; \
    using kesModbusRtuFrame::HasValidCrc;                                \
    using kesModbusRtuFrame::GetUnitID;                                  \
    using kesModbusRtuFrame::GetFunctionCodeID;                          \
    using kesModbusRtuFrame::GetStartRegister;                           \
    using kesModbusRtuFrame::GetRegistersCount;                          \
    using kesModbusRtuFrame::GetFrameSize;                               \
    using kesModbusRtuFrame::GetFrameBufferPtr;                          \
    using kesModbusRtuFrame::GetResponseBufferSize;                      \
    using kesModbusRtuFrame::SetUnitID;

// A read request carries no data: whichever view is asked for, it answers
// with its request view.
#define KES_MODBUS_RTU_PINNED_REQUEST_VIEW            \
public:                                               \
    unsigned char* GetDataPtr(bool) const override    \
    {                                                 \
        return kesModbusRtuFrame::GetDataPtr(false);  \
    }                                                 \
    unsigned int GetDataSize(bool) const override     \
    {                                                 \
        return kesModbusRtuFrame::GetDataSize(false); \
    }

class kesModbusRtuReadCoilsFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuReadCoilsFrame, GetModbusRtuReadCoilsFramePtr)
    KES_MODBUS_RTU_PINNED_REQUEST_VIEW
public:
    kesModbusRtuReadCoilsFrame();
    using kesModbusRtuFrame::SetRegisters;
};

class kesModbusRtuReadDiscreteInputsFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuReadDiscreteInputsFrame, GetModbusRtuReadDiscreteInputsFramePtr)
    KES_MODBUS_RTU_PINNED_REQUEST_VIEW
public:
    kesModbusRtuReadDiscreteInputsFrame();
    using kesModbusRtuFrame::SetRegisters;
};

class kesModbusRtuReadHoldingRegistersFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuReadHoldingRegistersFrame,
                                         GetModbusRtuReadHoldingRegistersFramePtr)
    KES_MODBUS_RTU_PINNED_REQUEST_VIEW
public:
    kesModbusRtuReadHoldingRegistersFrame();
    using kesModbusRtuFrame::SetRegisters;
};

class kesModbusRtuReadInputRegistersFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuReadInputRegistersFrame, GetModbusRtuReadInputRegistersFramePtr)
    KES_MODBUS_RTU_PINNED_REQUEST_VIEW
public:
    kesModbusRtuReadInputRegistersFrame();
    using kesModbusRtuFrame::SetRegisters;
};

class kesModbusRtuWriteSingleCoilFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuWriteSingleCoilFrame, GetModbusRtuWriteSinglrCoilFramePtr)
public:
    kesModbusRtuWriteSingleCoilFrame();
    void SetRegister(unsigned short i_register, unsigned char i_on);
};

class kesModbusRtuWriteSingleRegisterFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuWriteSingleRegisterFrame, GetModbusRtuWriteSingleRegisterFramePtr)
public:
    kesModbusRtuWriteSingleRegisterFrame();
    void SetRegister(unsigned short i_register, unsigned short i_value);
};

class kesModbusRtuWriteMultipleCoilsFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuWriteMultipleCoilsFrame, GetModbusRtuWriteMultipleCoilsFramePtr)
public:
    kesModbusRtuWriteMultipleCoilsFrame();
    using kesModbusRtuFrame::SetData;
    using kesModbusRtuFrame::SetRegisters;
};

class kesModbusRtuWriteMultipleRegistersFrame : private kesModbusRtuFrame {
    KES_MODBUS_RTU_FUNCTION_FRAME_COMMON(kesModbusRtuWriteMultipleRegistersFrame,
                                         GetModbusRtuWriteMultipleRegistersFramePtr)
public:
    kesModbusRtuWriteMultipleRegistersFrame();
    using kesModbusRtuFrame::SetData;
    using kesModbusRtuFrame::SetRegisters;
};

#undef KES_MODBUS_RTU_PINNED_REQUEST_VIEW
#undef KES_MODBUS_RTU_FUNCTION_FRAME_COMMON

} // namespace kes

#endif
