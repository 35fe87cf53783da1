struct BRYLDMADevice;
// Placeholder until the DMA device lands: there is no board to close.
void BRYLDMADeviceClose(BRYLDMADevice *) {}
