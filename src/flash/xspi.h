// Driver for the AXI Quad SPI controller in the FPGA that the board's
// configuration flash hangs on. Polled: no interrupts, every call blocks, and
// a transfer costs about two register round trips per byte. Registers are
// reached through Xil_In32/Xil_Out32, so the instance's base address must
// already hold the FPGA's window in the user file.
#pragma once

#include <cstdint>

// Status codes.
enum : int {
  XST_SUCCESS = 0,
  XST_FAILURE = 1,
  XST_DEVICE_IS_STARTED = 5,
  XST_DEVICE_IS_STOPPED = 6,
  XST_DEVICE_BUSY = 21,
  XST_SPI_TOO_MANY_SLAVES = 1156,
  XST_SPI_SLAVE_ONLY = 1158,
};

// Register offsets from the controller's base.
enum : uint32_t {
  XSP_DGIER_OFFSET = 0x1C,
  XSP_IISR_OFFSET = 0x20,
  XSP_IIER_OFFSET = 0x28,
  XSP_SRR_OFFSET = 0x40,
  XSP_CR_OFFSET = 0x60,
  XSP_SR_OFFSET = 0x64,
  XSP_DTR_OFFSET = 0x68,
  XSP_DRR_OFFSET = 0x6C,
  XSP_SSR_OFFSET = 0x70,
};

// Control register bits.
enum : uint32_t {
  XSP_CR_LOOPBACK_MASK = 0x001,
  XSP_CR_ENABLE_MASK = 0x002,
  XSP_CR_MASTER_MODE_MASK = 0x004,
  XSP_CR_CLK_POLARITY_MASK = 0x008,
  XSP_CR_CLK_PHASE_MASK = 0x010,
  XSP_CR_TXFIFO_RESET_MASK = 0x020,
  XSP_CR_RXFIFO_RESET_MASK = 0x040,
  XSP_CR_MANUAL_SS_MASK = 0x080,
  XSP_CR_TRANS_INHIBIT_MASK = 0x100,
};

// Status register bits.
enum : uint32_t {
  XSP_SR_RX_EMPTY_MASK = 0x01,
  XSP_SR_TX_EMPTY_MASK = 0x04,
  XSP_SR_TX_FULL_MASK = 0x08,
};

// Interrupt status bit: the transmit FIFO has drained.
constexpr uint32_t XSP_INTR_TX_EMPTY_MASK = 0x04;
// Interrupt sources that starting the controller enables.
constexpr uint32_t XSP_INTR_DFT_MASK = 0x202B;
constexpr uint32_t XSP_GINTR_ENABLE_MASK = 0x80000000;
constexpr uint32_t XSP_SRR_RESET_MASK = 0x0A;
constexpr uint32_t XSP_FIFO_DEPTH = 256;

// Driver options, mapped onto control register bits by XSpi_SetOptions.
enum : uint32_t {
  XSP_MASTER_OPTION = 0x01,
  XSP_CLK_ACTIVE_LOW_OPTION = 0x02,
  XSP_CLK_PHASE_1_OPTION = 0x04,
  XSP_LOOPBACK_OPTION = 0x08,
  XSP_MANUAL_SSELECT_OPTION = 0x10,
};

constexpr uint32_t XIL_COMPONENT_IS_READY = 0x11111111;
constexpr uint32_t XIL_COMPONENT_IS_STARTED = 0x22222222;

struct XSpi_Config {
  uint16_t DeviceId;
  uint64_t BaseAddress;
  int32_t HasFifos;
  uint32_t SlaveOnly;
  uint8_t NumSlaveBits;
  uint8_t DataWidth;  // 0 means 8
  uint8_t SpiMode;
  uint8_t AxiInterface;
  uint32_t AxiFullBaseAddress;
  uint8_t XipMode;
  uint8_t Use_Startup;     // 1: wake the startup block with a dummy read first
  const char *DevicePath;  // carried along for the caller; the driver doesn't use it
};

struct XSpi_Stats {
  uint32_t ModeFaults;
  uint32_t XmitUnderruns;
  uint32_t RecvOverruns;
  uint32_t SlaveModeFaults;
  uint32_t BytesTransferred;
  uint32_t NumInterrupts;
};

using XSpi_StatusHandler = void (*)(void *callbackRef, uint32_t statusEvent, unsigned byteCount);

struct XSpi {
  XSpi_Stats Stats;
  uint64_t BaseAddr;
  uint32_t IsReady;
  uint32_t IsStarted;
  int32_t HasFifos;
  uint32_t SlaveOnly;
  uint8_t NumSlaveBits;
  uint8_t DataWidth;
  uint8_t SpiMode;
  uint32_t SlaveSelectMask;
  uint32_t SlaveSelectReg;
  const uint8_t *SendBufferPtr;
  uint8_t *RecvBufferPtr;
  unsigned RequestedBytes;
  unsigned RemainingBytes;
  uint32_t IsBusy;
  XSpi_StatusHandler StatusHandler;
  void *StatusRef;
  uint32_t FlashBaseAddress;
  uint8_t XipMode;
};

int XSpi_CfgInitialize(XSpi *instance, const XSpi_Config *config, uint64_t baseAddress);
int XSpi_Start(XSpi *instance);
int XSpi_Stop(XSpi *instance);
void XSpi_Reset(XSpi *instance);
int XSpi_SetOptions(XSpi *instance, uint32_t options);
int XSpi_SetSlaveSelect(XSpi *instance, uint32_t slaveMask);
// Keeps the slave selected from the first byte to the last, in rounds of at
// most one FIFO. Without a receive buffer what comes back is dropped.
int XSpi_Transfer(XSpi *instance, const uint8_t *send, uint8_t *receive, unsigned byteCount);
