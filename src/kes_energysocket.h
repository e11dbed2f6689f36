#ifndef KES_ENERGYSOCKET_H
#define KES_ENERGYSOCKET_H

#include "kes_error.h"
#include "kes_osserialcom.h"
#include "kes_ostcpsocket.h"
#include "kes_string.h"

namespace kes {

// The byte channel of one bus: a TCP gateway, or a USB serial adapter when
// the address holds "/dev/ttyUSB" (any case, anywhere). On serial every frame
// comes back as an echo, which Send reads and checks before it returns.
// Results: a byte count, -1 failure or no handle, -2 time-out (TCP only),
// -3 peer closed. -1 and -3 close the channel so that its owner reconnects.
class kesEnergySocket {
public:
    // The longest Modbus RTU frame: 255 data bytes and 9 around them.
    static constexpr unsigned int ECHO_BUFFER_SIZE = 264;
    // Between two reads while a serial reply is awaited.
    static constexpr unsigned int SERIAL_PAUSE_MS = 5;

    kesEnergySocket();
    virtual ~kesEnergySocket();

    kesEnergySocket(const kesEnergySocket&) = delete;
    kesEnergySocket& operator=(const kesEnergySocket&) = delete;

    kesEError Open(const kesString& i_address, unsigned short i_port);
    kesEError Close();
    bool IsSerial() const;
    bool IsOpen() const;
    bool IsValid() const;
    bool SetReceiveTimeOut(const unsigned int& i_milliseconds);
    unsigned int GetReceiveTimeOut() const;
    int Send(const void* i_pData, unsigned int i_size);
    int Receive(void* o_pData, unsigned int i_size, int* o_pReceived);
    // Reads and drops what arrives within i_milliseconds (0: only what waits
    // now): the number of bytes dropped, or -1 / -3 as Receive.
    int Discard(unsigned int i_milliseconds);

private:
    int receive_available(unsigned char* o_pData, unsigned int i_size, unsigned int i_milliseconds);

    int send_serial(const unsigned char* i_pData, unsigned int i_size);
    void close_after_failure(int i_result, const char* i_function);

    bool m_bSerial;
    unsigned int m_uReceiveTimeOut;
    kesOsTcpSocket* m_pTcpSocket;
    kesOsSerialCom* m_pSerialCom;
    // per channel: several serial lines run at once, each on its own thread
    unsigned char m_aEcho[ECHO_BUFFER_SIZE];
};

// Sends and drops the echo that follows: the number of bytes, or an error code.
int __SEND_PURGE_ECHO__(kesEnergySocket* io_pSocket, const void* i_pData, unsigned int i_size);
// Receives i_size - 4 bytes into o_pData, then seals i_size bytes of io_pFrame with its CRC.
kesEError __RECV_LESS_BYTE__(kesEnergySocket* io_pSocket, unsigned char* o_pData, unsigned short i_size,
                             unsigned char* io_pFrame);
// Drops whatever arrives until the line is quiet for i_milliseconds.
kesEError __FLUSH_DATA_SOCKET__(kesEnergySocket* io_pSocket, unsigned int i_milliseconds);

} // namespace kes

#endif
