#include "sim/iic.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace sim {

namespace {

constexpr size_t kTranscriptLimit = 4096;  // tokens kept; a long run only needs the recent past
constexpr size_t kErrorLimit = 256;
constexpr size_t kTransferLimit = 1024;
// How long another master keeps the bus after winning it from us, in bytes.
constexpr uint32_t kForeignBytes = 3;

std::string Hex(uint32_t value) {
  char text[8];
  snprintf(text, sizeof text, "%02X", value & 0xFF);
  return text;
}

// A transcript token such as "w05+": appended, not concatenated, as g++ 12 at
// -O3 sees a false overlap in the latter.
std::string Token(const char *kind, uint32_t value, bool ack) {
  std::string token = kind;
  token += Hex(value);
  token += ack ? '+' : '-';
  return token;
}

bool ParseNumber(const std::string &text, uint64_t *value, int base = 0) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char *end = nullptr;
  errno = 0;
  *value = strtoull(text.c_str(), &end, base);
  return errno == 0 && end && *end == '\0';
}

bool ParseAddress(const std::string &text, uint32_t *address, int base = 0) {
  uint64_t value;
  if (!ParseNumber(text, &value, base) || value > 0x7F) return false;
  *address = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

uint16_t TemperatureSensor::Encode(double celsius) {
  long sixteenths = std::lround(std::clamp(celsius, -256.0, 255.9375) * 16.0);
  auto word = static_cast<uint16_t>(static_cast<uint16_t>(sixteenths) & 0x1FFF);
  if (celsius >= kCritical) word |= 0x8000;
  if (celsius > kUpper) word |= 0x4000;
  if (celsius < kLower) word |= 0x2000;
  return word;
}

bool TemperatureSensor::Begin(bool read) {
  readIndex_ = 0;
  expectPointer_ = !read;
  // The reading is taken once per read transfer, so its two bytes agree.
  if (read) latched_ = pointer_ == kTemperatureRegister ? Encode(temperature_()) : 0;
  return true;
}

bool TemperatureSensor::WriteByte(uint8_t byte) {
  if (expectPointer_) pointer_ = byte;
  expectPointer_ = false;
  return true;
}

uint8_t TemperatureSensor::ReadByte() {
  bytesRead_++;
  uint8_t byte = readIndex_ % 2 == 0 ? static_cast<uint8_t>(latched_ >> 8) : static_cast<uint8_t>(latched_);
  readIndex_++;
  return byte;
}

bool RecordingDevice::Begin(bool read) {
  writing_ = !read;
  if (writing_) {
    if (transfers_.size() >= kTransferLimit) transfers_.erase(transfers_.begin());
    transfers_.push_back({{}, clockOutOfReset_()});
  }
  return true;
}

bool RecordingDevice::WriteByte(uint8_t byte) {
  if (writing_) transfers_.back().bytes.push_back(byte);
  return true;
}

IicBlock::IicBlock(Fpga &fpga) : fpga_(fpga) { UpdateLevels(); }

IicBlock::~IicBlock() = default;

void IicBlock::Attach(uint8_t address, std::unique_ptr<I2cDevice> device) {
  devices_[address & 0x7F] = std::move(device);
}

I2cDevice *IicBlock::DeviceAt(uint8_t address) const {
  auto it = devices_.find(address);
  return it == devices_.end() ? nullptr : it->second.get();
}

uint32_t IicBlock::ByteTicks() const { return std::max<uint32_t>(1, fpga_.Setup().i2cByteTicks); }

bool IicBlock::BusBusy() const { return busy_ || fpga_.Setup().faults.i2c.busStuck; }

uint32_t IicBlock::Status() const {
  uint32_t status = 0;
  if (BusBusy()) status |= kBusBusy;
  if (tx_.size() >= kFifoDepth) status |= kTxFull;
  if (rx_.size() >= kFifoDepth) status |= kRxFull;
  if (rx_.empty()) status |= kRxEmpty;
  if (tx_.empty()) status |= kTxEmpty;
  return status;
}

// These bits follow a condition: clearing one while its condition holds
// doesn't stick.
void IicBlock::UpdateLevels() {
  if (tx_.empty()) isr_ |= kTxFifoEmpty;
  if (tx_.size() <= kFifoDepth / 2) isr_ |= kTxFifoHalfEmpty;
  if (rx_.size() > pirq_) isr_ |= kRxFifoFull;
  if (!BusBusy()) isr_ |= kBusNotBusy;
}

uint32_t IicBlock::Read(uint32_t offset) {
  Step();
  uint32_t value = 0;
  switch (offset) {
    case kGie: value = gie_; break;
    case kIsr: value = isr_; break;
    case kIer: value = ier_; break;
    case kControl: value = control_; break;
    case kStatus: value = Status(); break;
    case kRxFifo:
      if (rx_.empty()) {
        Error("read of the empty receive FIFO");
      } else {
        value = rx_.front();
        rx_.pop_front();
      }
      break;
    case kOwnAddress: value = ownAddress_; break;
    case kTxOccupancy: value = tx_.empty() ? 0 : static_cast<uint32_t>(tx_.size() - 1); break;
    case kRxOccupancy: value = rx_.empty() ? 0 : static_cast<uint32_t>(rx_.size() - 1); break;
    case kTenBitAddress: value = tenBitAddress_; break;
    case kRxPirq: value = pirq_; break;
    case kGpo: value = gpo_; break;
    default: break;
  }
  UpdateLevels();
  return value;
}

void IicBlock::Write(uint32_t offset, uint32_t value) {
  Step();
  switch (offset) {
    case kGie: gie_ = value & 0x80000000u; break;
    // A written 1 toggles: it clears a set bit and sets a clear one, so a
    // host writes back only bits it has just read as set.
    case kIsr: isr_ ^= value & 0xFF; break;
    case kIer: ier_ = value & 0xFF; break;
    case kSoftReset:
      if ((value & 0xF) == kSoftResetKey)
        SoftReset();
      else
        Error("soft reset written without its key");
      break;
    case kControl: WriteControl(value); break;
    case kTxFifo:
      if (value & 0x300) Error("start or stop bits in a FIFO word: only standard mode is modelled");
      if (control_ & kTxFifoReset) break;  // the FIFO is held empty
      if (tx_.size() >= kFifoDepth)
        Error("write to the full transmit FIFO");
      else
        tx_.push_back(static_cast<uint8_t>(value));
      break;
    case kOwnAddress: ownAddress_ = value & 0xFE; break;
    case kTenBitAddress: tenBitAddress_ = value & 0x7; break;
    case kRxPirq: pirq_ = value & 0xF; break;
    case kGpo: gpo_ = value & 0xFF; break;
    default: break;  // read-only or nothing there
  }
  UpdateLevels();
}

void IicBlock::WriteControl(uint32_t value) {
  uint32_t old = control_;
  control_ = value & 0x7F;
  if (control_ & kTxFifoReset) tx_.clear();
  if (!(old & kMaster) && (control_ & kMaster)) {
    if (!(control_ & kEnable)) {
      Error("master mode asked for while the controller is disabled");
      control_ &= ~kMaster;
    } else if (master_) {
      Error("master mode set again before the stop went out");
    } else if (BusBusy()) {
      LoseArbitration();
    } else {
      phase_ = Phase::Starting;
      master_ = true;
      if (control_ & kRepeatedStart) {
        Error("repeated start asked for together with a start");
        control_ &= ~kRepeatedStart;
      }
    }
  }
  // A repeated start only makes sense on a bus we own.
  if ((control_ & kRepeatedStart) && !(old & kRepeatedStart) && !master_) LoseArbitration();
}

void IicBlock::SoftReset() {
  Note("reset");
  control_ = isr_ = ier_ = gie_ = pirq_ = ownAddress_ = tenBitAddress_ = gpo_ = 0;
  tx_.clear();
  rx_.clear();
  // Our lines are released; another master's transfer goes on.
  if (master_) {
    EndTarget();
    busy_ = false;
    master_ = false;
    phase_ = Phase::Idle;
  }
  addressNext_ = reading_ = held_ = deviceDriving_ = forceNak_ = false;
}

void IicBlock::LoseArbitration() {
  Note("L");
  isr_ |= kArbitrationLost;
  control_ &= ~(kMaster | kRepeatedStart);
  tx_.clear();
  EndTarget();
  master_ = false;
  addressNext_ = reading_ = held_ = deviceDriving_ = forceNak_ = false;
  if (phase_ == Phase::Foreign) return;
  if (fpga_.Setup().faults.i2c.busStuck) {
    busy_ = false;
    phase_ = Phase::Idle;
  } else {
    busy_ = true;
    phase_ = Phase::Foreign;
    ticksLeft_ = kForeignBytes * ByteTicks();
  }
}

void IicBlock::EndTarget() {
  if (target_) target_->End();
  target_ = nullptr;
}

void IicBlock::Step() {
  // With no time per byte the bus runs until it waits for the host; the
  // bound only guards against a loop in the model itself.
  if (fpga_.Setup().i2cByteTicks == 0) {
    for (int i = 0; i < 1000 && Advance(); i++) {}
  } else {
    Advance();
  }
  UpdateLevels();
}

bool IicBlock::Advance() {
  switch (phase_) {
    case Phase::Idle: return false;
    case Phase::Starting:
      Note("S");
      busy_ = true;
      addressNext_ = true;
      phase_ = Phase::Waiting;
      return true;
    case Phase::Waiting: return Decide();
    case Phase::Shifting:
      if (--ticksLeft_ == 0) FinishByte();
      return true;
    case Phase::Stopping:
      Note("P");
      EndTarget();
      busy_ = master_ = false;
      addressNext_ = reading_ = held_ = deviceDriving_ = false;
      phase_ = Phase::Idle;
      return true;
    case Phase::Foreign:
      if (--ticksLeft_ == 0) {
        busy_ = false;
        phase_ = Phase::Idle;
      }
      return true;
  }
  return false;
}

void IicBlock::BeginShift(Shift kind, uint8_t byte) {
  shift_ = kind;
  shiftByte_ = byte;
  ticksLeft_ = ByteTicks();
  phase_ = Phase::Shifting;
}

// At a byte boundary, with the bus ours: what the control bits and the FIFOs
// ask for next. Nothing asked for holds the clock low until the host acts.
bool IicBlock::Decide() {
  bool keepMaster = control_ & kMaster;
  bool restart = control_ & kRepeatedStart;
  auto repeatedStart = [this] {
    Note("Sr");
    EndTarget();
    control_ &= ~kRepeatedStart;
    addressNext_ = true;
    reading_ = held_ = deviceDriving_ = false;
  };

  if (addressNext_) {
    if (!tx_.empty()) {
      uint8_t address = tx_.front();
      tx_.pop_front();
      BeginShift(Shift::Address, address);
      return true;
    }
    if (keepMaster) return false;
    Error("stop asked for before any address went out");
    phase_ = Phase::Stopping;
    return true;
  }
  if (deviceDriving_) {
    // The device acknowledged into the next byte and drives it whatever we
    // want now: ending here costs one more byte, left unacknowledged.
    if (!keepMaster || restart) {
      Error("stop or repeated start asked for after an acknowledged byte; one more byte was read");
      forceNak_ = true;
      BeginShift(Shift::Receive, 0);
      return true;
    }
    // The receive FIFO at its set depth throttles the bus until it is read.
    if (rx_.size() > pirq_) return false;
    BeginShift(Shift::Receive, 0);
    return true;
  }
  if (held_) {
    if (!keepMaster)
      phase_ = Phase::Stopping;
    else if (restart && !tx_.empty())
      repeatedStart();
    else
      return false;
    return true;
  }
  if (!tx_.empty()) {
    // Whatever is in the FIFO once a repeated start is asked for is the
    // next address.
    if (restart) {
      repeatedStart();
      return true;
    }
    uint8_t byte = tx_.front();
    tx_.pop_front();
    BeginShift(Shift::Transmit, byte);
    return true;
  }
  if (keepMaster) return false;
  phase_ = Phase::Stopping;
  return true;
}

void IicBlock::FinishByte() {
  phase_ = Phase::Waiting;
  auto unacknowledged = [this] {
    isr_ |= kTransmitError;
    tx_.clear();
    held_ = true;
    deviceDriving_ = false;
  };
  switch (shift_) {
    case Shift::Address: {
      addressNext_ = false;
      I2cFaults &faults = fpga_.Setup().faults.i2c;
      if (faults.loseArbitration > 0) {
        faults.loseArbitration--;
        LoseArbitration();
        return;
      }
      uint8_t address = shiftByte_ >> 1;
      bool read = shiftByte_ & 1;
      bool deaf =
          std::find(faults.noAcknowledge.begin(), faults.noAcknowledge.end(), address) != faults.noAcknowledge.end();
      I2cDevice *device = deaf ? nullptr : DeviceAt(address);
      bool ack = device && device->Begin(read);
      Note(Token("@", shiftByte_, ack));
      if (!ack) {
        unacknowledged();
        return;
      }
      target_ = device;
      reading_ = deviceDriving_ = read;
      held_ = false;
      return;
    }
    case Shift::Transmit: {
      bool ack = target_ && target_->WriteByte(shiftByte_);
      Note(Token("w", shiftByte_, ack));
      if (!ack) unacknowledged();
      return;
    }
    case Shift::Receive: {
      uint8_t byte = target_ ? target_->ReadByte() : 0xFF;
      bool ack = !(control_ & kNoAcknowledge) && !forceNak_;
      forceNak_ = false;
      Note(Token("r", byte, ack));
      if (rx_.size() >= kFifoDepth)
        Error("receive FIFO overflow: a byte was lost");
      else
        rx_.push_back(byte);
      if (!ack) {
        // A master receiver that leaves a byte unacknowledged raises the
        // transmit error bit too.
        isr_ |= kTransmitError;
        held_ = true;
        deviceDriving_ = false;
      }
      return;
    }
  }
}

void IicBlock::Note(std::string token) {
  if (transcript_.size() >= kTranscriptLimit) transcript_.pop_front();
  transcript_.push_back(std::move(token));
}

void IicBlock::Error(std::string text) {
  if (errors_.size() < kErrorLimit) errors_.push_back(std::move(text));
}

std::string IicBlock::TakeTranscript() {
  std::string text;
  for (const std::string &token : transcript_) {
    if (!text.empty()) text += ' ';
    text += token;
  }
  transcript_.clear();
  return text;
}

std::vector<std::string> IicBlock::TakeProtocolErrors() {
  std::vector<std::string> errors;
  errors.swap(errors_);
  return errors;
}

void AttachRegulatorDevices(IicBlock &iic, Fpga &fpga) {
  struct Sensor {
    uint8_t address;
    double offset;  // degrees below the regulator's own temperature
  };
  for (Sensor sensor : {Sensor{0x18, 3.0}, Sensor{0x19, 1.5}, Sensor{0x1F, 0.0}}) {
    iic.Attach(sensor.address, std::make_unique<TemperatureSensor>([&fpga, sensor] {
                 const auto &forced = fpga.Setup().faults.i2c.temperature;
                 auto it = forced.find(sensor.address);
                 return it != forced.end() ? it->second : fpga.VrmTemperature() - sensor.offset;
               }));
  }
  iic.Attach(0x2C, std::make_unique<RecordingDevice>([&fpga] { return fpga.OutOfReset(); }));
}

bool ApplyI2cSetting(FpgaSetup &fpga, const std::string &key, const std::string &value, std::string *error) {
  I2cFaults &faults = fpga.faults.i2c;
  auto bad = [&] {
    if (error) *error = "bad value for " + key + ": '" + value + "'";
    return false;
  };
  uint64_t number;
  if (key == "i2c_busy") {
    if (value == "1" || value == "on" || value == "yes")
      faults.busStuck = true;
    else if (value == "0" || value == "off" || value == "no")
      faults.busStuck = false;
    else
      return bad();
    return true;
  }
  if (key == "i2c_nak") {
    std::vector<uint32_t> addresses;
    if (value != "none") {
      size_t begin = 0;
      for (;;) {
        size_t comma = value.find(',', begin);
        uint32_t address;
        if (!ParseAddress(value.substr(begin, comma - begin), &address)) return bad();
        addresses.push_back(address);
        if (comma == std::string::npos) break;
        begin = comma + 1;
      }
    }
    faults.noAcknowledge = std::move(addresses);
    return true;
  }
  if (key == "i2c_arb_lost") {
    if (!ParseNumber(value, &number) || number > 0xFFFFFFFFu) return bad();
    faults.loseArbitration = static_cast<uint32_t>(number);
    return true;
  }
  if (key == "i2c_byte_ticks") {
    if (!ParseNumber(value, &number) || number > 1000000) return bad();
    fpga.i2cByteTicks = static_cast<uint32_t>(number);
    return true;
  }
  if (key.rfind("i2c_temp_", 0) == 0) {
    uint32_t address;
    if (!ParseAddress(key.substr(9), &address, 16)) {
      if (error) *error = "unknown setting: " + key;
      return false;
    }
    if (value == "off") {
      faults.temperature.erase(address);
      return true;
    }
    char *end = nullptr;
    double celsius = strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || !std::isfinite(celsius)) return bad();
    faults.temperature[address] = celsius;
    return true;
  }
  if (error) *error = "unknown setting: " + key;
  return false;
}

std::string DescribeIic(Fpga &fpga) {
  const I2cFaults &faults = fpga.Setup().faults.i2c;
  std::string text;
  if (faults.busStuck) text += " busy";
  if (!faults.noAcknowledge.empty()) {
    text += " nak=";
    for (size_t i = 0; i < faults.noAcknowledge.size(); i++) text += (i ? ",0x" : "0x") + Hex(faults.noAcknowledge[i]);
  }
  if (faults.loseArbitration) text += " arb_lost=" + std::to_string(faults.loseArbitration);
  for (const auto &[address, celsius] : faults.temperature) {
    char item[48];
    snprintf(item, sizeof item, " temp_%s=%.2f", Hex(address).c_str(), celsius);
    text += item;
  }
  if (IicBlock *iic = fpga.Iic()) {
    if (auto *recorder = iic->Device<RecordingDevice>(0x2C)) {
      text += " writes_2C=" + std::to_string(recorder->Transfers().size());
    }
  }
  return text.empty() ? text : "    i2c:" + text + "\n";
}

}  // namespace sim
