// Identity reads: model, serial text and test date of every device type, and
// the data sheet of a panel. All are measurement-style exchanges; only the
// offsets and the field sizes differ.
#include "kes_enerysystem_private.h"

namespace kes {

namespace {

enum kesEIdentityField { kesIdentityModel = 0, kesIdentitySerial = 1, kesIdentityTestDate = 2 };

// The failure texts of model, serial text and test date.
const char* const IDENTITY_FAILURES[kesEnergySystem::IDENTITY_FIELDS] = {
    "Can not get Model at address:", "Can not get Serial at address:", "Can not get Test date at address:"};

struct kesTextContext {
    kesString* output;
    unsigned int length;
};

kesEError decode_text(const unsigned char* i_pData, unsigned int, void* io_pContext)
{
    const kesTextContext* context = static_cast<const kesTextContext*>(io_pContext);
    if (context->output)
        context->output->assign(reinterpret_cast<const char*>(i_pData), context->length);
    return kesErrorOk;
}

struct kesFlashContext {
    float* scaled[6];
    unsigned int* counts[2];
};

kesEError decode_flash(const unsigned char* i_pData, unsigned int, void* io_pContext)
{
    // Registers 0 to 6 without 5 are scaled values, 5 is unused, 7 and 8 counts.
    static const unsigned char SCALED_REGISTERS[6] = {0, 1, 2, 3, 4, 6};
    static const float SCALES[6] = {0.01f, 0.01f, 0.1f, 0.01f, 0.01f, 0.01f};
    const kesFlashContext* context = static_cast<const kesFlashContext*>(io_pContext);
    for (unsigned int i = 0; i < 6; ++i)
        if (context->scaled[i])
            *context->scaled[i] = static_cast<float>(register_at(i_pData, SCALED_REGISTERS[i])) * SCALES[i];
    for (unsigned int i = 0; i < 2; ++i)
        if (context->counts[i])
            *context->counts[i] = register_at(i_pData, 7 + i);
    return kesErrorOk;
}

const unsigned short PANEL_FLASH_OFFSET = 32;
const unsigned short PANEL_FLASH_REGISTERS = 9;

} // namespace

kesEError kesEnergySystem::read_text(kesEnergySocket* io_pChannel, unsigned int i_uiField, kesEEnergyDeviceType i_eType,
                                     unsigned short i_usAddress, kesString* o_pData, unsigned char i_ucOffset,
                                     const char* i_szFunction)
{
    const unsigned short registers = IDENTITY_REGISTERS[i_uiField];
    kesModbusRtuReadHoldingRegistersFrame request;
    request.SetUnitID(static_cast<unsigned char>(i_eType));
    request.SetRegisters(static_cast<unsigned short>(i_usAddress + i_ucOffset), registers);
    kesTextContext context = {o_pData, 2u * registers};
    return exchange(io_pChannel, request.GetModbusRtuFramePtr(), true, i_usAddress, 2u * registers + 5u, 2u * registers,
                    &decode_text, &context, i_szFunction);
}

kesEError kesEnergySystem::read_response_model(kesEnergySocket* io_pChannel, kesEEnergyDeviceType i_eType,
                                               unsigned short i_usAddress, kesString* o_pData, unsigned char i_ucOffset)
{
    if (!o_pData)
        return KES_LOG(kesErrorInvalidArgument, "o_data == 0");
    return read_text(io_pChannel, kesIdentityModel, i_eType, i_usAddress, o_pData, i_ucOffset, __func__);
}

kesEError kesEnergySystem::read_response_serial(kesEnergySocket* io_pChannel, kesEEnergyDeviceType i_eType,
                                                unsigned short i_usAddress, kesString* o_pData,
                                                unsigned char i_ucOffset)
{
    return read_text(io_pChannel, kesIdentitySerial, i_eType, i_usAddress, o_pData, i_ucOffset, __func__);
}

kesEError kesEnergySystem::read_response_test_date(kesEnergySocket* io_pChannel, kesEEnergyDeviceType i_eType,
                                                   unsigned short i_usAddress, kesString* o_pData,
                                                   unsigned char i_ucOffset)
{
    return read_text(io_pChannel, kesIdentityTestDate, i_eType, i_usAddress, o_pData, i_ucOffset, __func__);
}

kesEError kesEnergySystem::read_identity(unsigned int i_uiField, kesEEnergyDeviceType i_eType,
                                         unsigned short i_usAddress, kesString* o_pData, const char* i_szFunction)
{
    const unsigned char offset = IDENTITY_OFFSETS[i_eType][i_uiField];
    auto attempt = [&] {
        switch (i_uiField) {
        case kesIdentityModel:
            return read_response_model(&m_oSocket, i_eType, i_usAddress, o_pData, offset);
        case kesIdentitySerial:
            return read_response_serial(&m_oSocket, i_eType, i_usAddress, o_pData, offset);
        default:
            return read_response_test_date(&m_oSocket, i_eType, i_usAddress, o_pData, offset);
        }
    };
    return execute(attempt, IDENTITY_FAILURES[i_uiField], i_usAddress, i_szFunction);
}

#define KES_IDENTITY_READS(WORD, TYPE)                                                              \
    kesEError kesEnergySystem::Read##WORD##Model(unsigned short i_usAddress, kesString* o_pData)    \
    {                                                                                               \
        return read_identity(kesIdentityModel, TYPE, i_usAddress, o_pData, __func__);               \
    }                                                                                               \
    kesEError kesEnergySystem::Read##WORD##Serial(unsigned short i_usAddress, kesString* o_pData)   \
    {                                                                                               \
        return read_identity(kesIdentitySerial, TYPE, i_usAddress, o_pData, __func__);              \
    }                                                                                               \
    kesEError kesEnergySystem::Read##WORD##TestDate(unsigned short i_usAddress, kesString* o_pData) \
    {                                                                                               \
        return read_identity(kesIdentityTestDate, TYPE, i_usAddress, o_pData, __func__);            \
    }

KES_IDENTITY_READS(Panel, kesEnergyDevicePanel)
KES_IDENTITY_READS(String, kesEnergyDeviceString)
KES_IDENTITY_READS(StringOne, kesEnergyDeviceStringOne)
KES_IDENTITY_READS(StringTwo, kesEnergyDeviceStringTwo)
KES_IDENTITY_READS(StringThree, kesEnergyDeviceStringThree)
KES_IDENTITY_READS(StringFour, kesEnergyDeviceStringFour)
KES_IDENTITY_READS(Ambient, kesEnergyDeviceAmbient)
KES_IDENTITY_READS(Alarm, kesEnergyDeviceAlarm)
KES_IDENTITY_READS(PulseCounter, kesEnergyDevicePulseCounter)
KES_IDENTITY_READS(PulseCounterTwo, kesEnergyDevicePulseCounterTwo)
KES_IDENTITY_READS(PulseCounterFive, kesEnergyDevicePulseCounterFive)

#undef KES_IDENTITY_READS

kesEError kesEnergySystem::read_response_panel_flash(kesEnergySocket* io_pChannel, unsigned short i_usAddress,
                                                     float* o_pOpenVoltage, float* o_pOpenAmpere, float* o_pMaxPower,
                                                     float* o_pMaxVoltage, float* o_pMaxAmpere, float* o_pEfficiency,
                                                     unsigned int* o_pCells, unsigned int* o_pPanels)
{
    kesModbusRtuReadHoldingRegistersFrame request;
    request.SetUnitID(static_cast<unsigned char>(kesEnergyDevicePanel));
    request.SetRegisters(static_cast<unsigned short>(i_usAddress + PANEL_FLASH_OFFSET), PANEL_FLASH_REGISTERS);
    kesFlashContext context = {{o_pOpenVoltage, o_pOpenAmpere, o_pMaxPower, o_pMaxVoltage, o_pMaxAmpere, o_pEfficiency},
                               {o_pCells, o_pPanels}};
    return exchange(io_pChannel, request.GetModbusRtuFramePtr(), true, i_usAddress, 2u * PANEL_FLASH_REGISTERS + 5u,
                    2u * PANEL_FLASH_REGISTERS, &decode_flash, &context, __func__);
}

kesEError kesEnergySystem::ReadPanelFlash(unsigned short i_usAddress, float* o_pOpenVoltage, float* o_pOpenAmpere,
                                          float* o_pMaxPower, float* o_pMaxVoltage, float* o_pMaxAmpere,
                                          float* o_pEfficiency, unsigned int* o_pCells, unsigned int* o_pPanels)
{
    auto attempt = [&] {
        return read_response_panel_flash(&m_oSocket, i_usAddress, o_pOpenVoltage, o_pOpenAmpere, o_pMaxPower,
                                         o_pMaxVoltage, o_pMaxAmpere, o_pEfficiency, o_pCells, o_pPanels);
    };
    return execute(attempt, "Can not get Flash data at address:", i_usAddress, __func__);
}

} // namespace kes
