#include "flash/xspi.h"

#include <bit>
#include <chrono>
#include <cstring>

#include "flash/xil_io.h"

namespace {

uint32_t In(const XSpi *spi, uint32_t offset) { return Xil_In32(static_cast<uint32_t>(spi->BaseAddr + offset)); }
void Out(const XSpi *spi, uint32_t offset, uint32_t value) {
  Xil_Out32(static_cast<uint32_t>(spi->BaseAddr + offset), value);
}

// Nothing raises interrupts here, so a status callback means a broken driver.
void StubStatusHandler(void *, uint32_t, unsigned) { Xil_Assert(__FILE__, __LINE__); }

struct OptionMap {
  uint32_t option;
  uint32_t mask;
};
constexpr OptionMap kOptions[] = {
    {XSP_LOOPBACK_OPTION, XSP_CR_LOOPBACK_MASK},        {XSP_CLK_ACTIVE_LOW_OPTION, XSP_CR_CLK_POLARITY_MASK},
    {XSP_CLK_PHASE_1_OPTION, XSP_CR_CLK_PHASE_MASK},    {XSP_MASTER_OPTION, XSP_CR_MASTER_MODE_MASK},
    {XSP_MANUAL_SSELECT_OPTION, XSP_CR_MANUAL_SS_MASK},
};

// Stops a transfer in flight: slave deselected, shifting inhibited, FIFOs
// emptied.
void Abort(XSpi *spi) {
  Out(spi, XSP_SSR_OFFSET, spi->SlaveSelectMask);
  uint32_t control = In(spi, XSP_CR_OFFSET) | XSP_CR_TRANS_INHIBIT_MASK;
  if (spi->HasFifos) control |= XSP_CR_TXFIFO_RESET_MASK | XSP_CR_RXFIFO_RESET_MASK;
  Out(spi, XSP_CR_OFFSET, control);
  spi->RequestedBytes = 0;
  spi->RemainingBytes = 0;
  spi->IsBusy = false;
}

}  // namespace

int XSpi_CfgInitialize(XSpi *spi, const XSpi_Config *config, uint64_t baseAddress) {
  Xil_AssertCheck(spi != nullptr && config != nullptr);
  if (spi->IsStarted == XIL_COMPONENT_IS_STARTED) return XST_DEVICE_IS_STARTED;

  spi->IsStarted = 0;
  spi->IsBusy = false;
  spi->StatusHandler = StubStatusHandler;
  spi->StatusRef = nullptr;
  spi->SendBufferPtr = nullptr;
  spi->RecvBufferPtr = nullptr;
  spi->RequestedBytes = 0;
  spi->RemainingBytes = 0;

  spi->BaseAddr = baseAddress;
  spi->HasFifos = config->HasFifos;
  spi->SlaveOnly = config->SlaveOnly;
  spi->NumSlaveBits = config->NumSlaveBits;
  spi->DataWidth = config->DataWidth == 0 ? 8 : config->DataWidth;
  spi->SpiMode = config->SpiMode;
  spi->FlashBaseAddress = config->AxiFullBaseAddress;
  spi->XipMode = config->XipMode;

  spi->IsReady = XIL_COMPONENT_IS_READY;
  spi->SlaveSelectMask = (1u << spi->NumSlaveBits) - 1;
  spi->SlaveSelectReg = spi->SlaveSelectMask;
  memset(&spi->Stats, 0, sizeof spi->Stats);

  if (config->Use_Startup == 1) {
    // The startup block hands the configuration clock over only after a few
    // cycles; a dummy identification read spends them.
    Out(spi, XSP_CR_OFFSET,
        In(spi, XSP_CR_OFFSET) | XSP_CR_TXFIFO_RESET_MASK | XSP_CR_RXFIFO_RESET_MASK | XSP_CR_ENABLE_MASK |
            XSP_CR_MASTER_MODE_MASK);
    Out(spi, XSP_DTR_OFFSET, 0x9F);
    Out(spi, XSP_DTR_OFFSET, 0x00);
    Out(spi, XSP_DTR_OFFSET, 0x00);
    Out(spi, XSP_CR_OFFSET, In(spi, XSP_CR_OFFSET) & ~XSP_CR_TRANS_INHIBIT_MASK);
    Out(spi, XSP_CR_OFFSET, In(spi, XSP_CR_OFFSET) | XSP_CR_TRANS_INHIBIT_MASK);
    for (int i = 0; i < 2; i++) {
      if (!(In(spi, XSP_SR_OFFSET) & XSP_SR_RX_EMPTY_MASK)) In(spi, XSP_DRR_OFFSET);
    }
  }

  XSpi_Reset(spi);
  return XST_SUCCESS;
}

void XSpi_Reset(XSpi *spi) {
  Xil_AssertCheck(spi != nullptr && spi->IsReady == XIL_COMPONENT_IS_READY);
  Abort(spi);
  spi->IsStarted = 0;
  spi->SlaveSelectReg = spi->SlaveSelectMask;
  Out(spi, XSP_SRR_OFFSET, XSP_SRR_RESET_MASK);
}

int XSpi_Start(XSpi *spi) {
  Xil_AssertCheck(spi != nullptr && spi->IsReady == XIL_COMPONENT_IS_READY);
  if (spi->IsStarted == XIL_COMPONENT_IS_STARTED) return XST_DEVICE_IS_STARTED;
  Out(spi, XSP_IIER_OFFSET, In(spi, XSP_IIER_OFFSET) | XSP_INTR_DFT_MASK);
  spi->IsStarted = XIL_COMPONENT_IS_STARTED;
  Out(spi, XSP_CR_OFFSET,
      In(spi, XSP_CR_OFFSET) | XSP_CR_TXFIFO_RESET_MASK | XSP_CR_RXFIFO_RESET_MASK | XSP_CR_ENABLE_MASK);
  Out(spi, XSP_DGIER_OFFSET, XSP_GINTR_ENABLE_MASK);
  return XST_SUCCESS;
}

int XSpi_Stop(XSpi *spi) {
  Xil_AssertCheck(spi != nullptr && spi->IsReady == XIL_COMPONENT_IS_READY);
  if (spi->IsBusy) return XST_DEVICE_BUSY;
  Out(spi, XSP_DGIER_OFFSET, 0);
  Out(spi, XSP_CR_OFFSET, In(spi, XSP_CR_OFFSET) & ~XSP_CR_ENABLE_MASK);
  spi->IsStarted = 0;
  return XST_SUCCESS;
}

int XSpi_SetOptions(XSpi *spi, uint32_t options) {
  Xil_AssertCheck(spi != nullptr && spi->IsReady == XIL_COMPONENT_IS_READY);
  if (spi->IsBusy) return XST_DEVICE_BUSY;
  if ((options & XSP_MASTER_OPTION) && spi->SlaveOnly) return XST_SPI_SLAVE_ONLY;
  uint32_t control = In(spi, XSP_CR_OFFSET);
  for (const OptionMap &row : kOptions) {
    if (options & row.option)
      control |= row.mask;
    else
      control &= ~row.mask;
  }
  Out(spi, XSP_CR_OFFSET, control);
  return XST_SUCCESS;
}

int XSpi_SetSlaveSelect(XSpi *spi, uint32_t slaveMask) {
  Xil_AssertCheck(spi != nullptr && spi->IsReady == XIL_COMPONENT_IS_READY);
  if (spi->IsBusy) return XST_DEVICE_BUSY;
  uint32_t lowBits = spi->NumSlaveBits >= 32 ? ~0u : (1u << spi->NumSlaveBits) - 1;
  if (std::popcount(slaveMask & lowBits) > 1) return XST_SPI_TOO_MANY_SLAVES;
  // The register is active low: a set mask bit becomes a low line.
  spi->SlaveSelectReg = ~slaveMask;
  return XST_SUCCESS;
}

int XSpi_Transfer(XSpi *spi, const uint8_t *send, uint8_t *receive, unsigned byteCount) {
  Xil_AssertCheck(spi != nullptr && send != nullptr && spi->IsReady == XIL_COMPONENT_IS_READY);
  if (spi->IsStarted != XIL_COMPONENT_IS_STARTED) return XST_DEVICE_IS_STOPPED;
  if (spi->IsBusy) return XST_DEVICE_BUSY;

  spi->IsBusy = true;
  spi->SendBufferPtr = send;
  spi->RecvBufferPtr = receive;
  spi->RequestedBytes = byteCount;
  spi->RemainingBytes = byteCount;

  // Selected once for the whole transfer: a flash command longer than the
  // FIFO must not be cut between rounds.
  Out(spi, XSP_SSR_OFFSET, spi->SlaveSelectReg);

  constexpr uint32_t kBothEmpty = XSP_SR_RX_EMPTY_MASK | XSP_SR_TX_EMPTY_MASK;
  // A FIFO's worth shifts out in well under a millisecond; a controller that
  // takes longer than this has stopped, and the transfer fails instead of
  // hanging its caller.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  auto stalled = [&] {
    if (std::chrono::steady_clock::now() < deadline) return false;
    Out(spi, XSP_SSR_OFFSET, spi->SlaveSelectMask);
    spi->IsBusy = false;
    return true;
  };
  while (spi->RemainingBytes > 0) {
    while ((In(spi, XSP_SR_OFFSET) & kBothEmpty) != kBothEmpty) {
      if (stalled()) return XST_FAILURE;
    }
    unsigned round = 0;
    while (spi->RemainingBytes > 0 && round < XSP_FIFO_DEPTH) {
      Out(spi, XSP_DTR_OFFSET, *spi->SendBufferPtr++);
      spi->RemainingBytes--;
      round++;
    }
    Out(spi, XSP_CR_OFFSET, In(spi, XSP_CR_OFFSET) & ~XSP_CR_TRANS_INHIBIT_MASK);
    while (!(In(spi, XSP_IISR_OFFSET) & XSP_INTR_TX_EMPTY_MASK)) {
      if (stalled()) return XST_FAILURE;
    }
    Out(spi, XSP_IISR_OFFSET, In(spi, XSP_IISR_OFFSET) | XSP_INTR_TX_EMPTY_MASK);
    Out(spi, XSP_CR_OFFSET, In(spi, XSP_CR_OFFSET) | XSP_CR_TRANS_INHIBIT_MASK);
    if (spi->RecvBufferPtr) {
      for (unsigned i = 0; i < round; i++) {
        *spi->RecvBufferPtr++ = static_cast<uint8_t>(In(spi, XSP_DRR_OFFSET));
        spi->Stats.BytesTransferred++;
      }
    } else {
      Out(spi, XSP_CR_OFFSET, In(spi, XSP_CR_OFFSET) | XSP_CR_RXFIFO_RESET_MASK);
    }
  }

  Out(spi, XSP_SSR_OFFSET, spi->SlaveSelectMask);
  spi->IsBusy = false;
  return XST_SUCCESS;
}
