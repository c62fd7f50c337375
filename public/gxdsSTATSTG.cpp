// The element record and the constructors of the abstract interfaces.
#include "gxStorage.h"

gxdsSTATSTG::gxdsSTATSTG() : name_(1, 0), type_(0), size_(0) {}

gxdsSTATSTG::gxdsSTATSTG(const gxdsSTATSTG& other)
    : name_(other.name_), type_(other.type_), size_(other.size_) {}

gxdsSTATSTG& gxdsSTATSTG::operator=(const gxdsSTATSTG& other) {
  if (this != &other) {
    name_ = other.name_;
    type_ = other.type_;
    size_ = other.size_;
  }
  return *this;
}

gxdsSTATSTG::~gxdsSTATSTG() = default;

const unsigned short* gxdsSTATSTG::name() { return name_.data(); }

void gxdsSTATSTG::setName(const unsigned short* name) {
  std::vector<unsigned short> copy;
  for (const unsigned short* p = name; *p != 0; ++p) copy.push_back(*p);
  copy.push_back(0);
  name_.swap(copy);
}

unsigned int gxdsSTATSTG::type() { return type_; }

void gxdsSTATSTG::setType(unsigned int type) { type_ = type; }

void gxdsSTATSTG::size(uint32_t& low, uint32_t& high) {
  low = static_cast<uint32_t>(size_);
  high = static_cast<uint32_t>(size_ >> 32);
}

void gxdsSTATSTG::setSize(uint32_t low, uint32_t high) {
  size_ = (static_cast<uint64_t>(high) << 32) | low;
}

CGxAbsStorage::CGxAbsStorage() = default;
CGxAbsStorage::CGxAbsStorage(const CGxAbsStorage&) = default;
CGxAbsStorage& CGxAbsStorage::operator=(const CGxAbsStorage&) = default;
CGxAbsStorage::~CGxAbsStorage() = default;

CGxAbsStream::CGxAbsStream() = default;
CGxAbsStream::CGxAbsStream(const CGxAbsStream&) = default;
CGxAbsStream& CGxAbsStream::operator=(const CGxAbsStream&) = default;
CGxAbsStream::~CGxAbsStream() = default;

CGxAbsStgEnum::CGxAbsStgEnum() = default;
CGxAbsStgEnum::CGxAbsStgEnum(const CGxAbsStgEnum&) = default;
CGxAbsStgEnum& CGxAbsStgEnum::operator=(const CGxAbsStgEnum&) = default;
CGxAbsStgEnum::~CGxAbsStgEnum() = default;
