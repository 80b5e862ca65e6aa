#pragma once
// The arithmetic coder of the compressed build file: bit streams on an MFile, adaptive
// frequency models and a 31-bit integer coder. Each symbol's count and the model's total
// rise by one after it is coded, with no rescaling: encoder and decoder stay in step only by
// doing the same.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "../../framework/Export.h"

class MFile;

namespace Sectioned {

// Bits most significant first within a byte, passed to the file a buffer at a time; a final
// partial byte is filled with zero bits by Flush.
class SLICEIO_API M2DBitOutStream
{
public:
    explicit M2DBitOutStream(MFile& file) : _file(file) {}
    void Put(unsigned bit)
    {
        _byte = static_cast<std::uint8_t>((_byte << 1) | (bit & 1));
        if (++_bits == 8)
            _PutByte();
    }
    void PutRepeated(unsigned bit, std::uint64_t n)
    {
        for (std::uint64_t i = 0; i < n; ++i)
            Put(bit);
    }
    // Pads the last byte with zeros and writes what is buffered; false when a write failed.
    bool Flush();
    std::uint64_t BitsWritten() const { return _written * 8 + _bits; }

private:
    void _PutByte();
    MFile& _file;
    std::vector<std::uint8_t> _buffer;
    std::uint64_t _written = 0;
    std::uint8_t _byte = 0;
    int _bits = 0;
    bool _ok = true;
};

// Bits of the file from its position up to an end offset; past the end every bit is zero.
class SLICEIO_API M2DBitInStream
{
public:
    M2DBitInStream(MFile& file, std::int64_t end) : _file(file), _end(end) {}
    unsigned Get()
    {
        if (_bits == 0)
            _Fill();
        --_bits;
        ++_read;
        return (_byte >> _bits) & 1u;
    }
    // Bits handed out so far, those past the end included.
    std::uint64_t BitsRead() const { return _read; }
    // Bits there were to read before the end.
    std::uint64_t BitsAvailable() const { return _available; }
    void SetAvailable(std::uint64_t bits) { _available = bits; }

private:
    void _Fill();
    MFile& _file;
    std::int64_t _end;
    std::vector<std::uint8_t> _buffer;
    std::size_t _at = 0;
    std::uint8_t _byte = 0;
    int _bits = 0;
    std::uint64_t _read = 0;
    std::uint64_t _available = 0;
};

class SLICEIO_API ModelI2
{
public:
    virtual ~ModelI2() = default;
};

class M2DArithmeticEncoder;
class M2DArithmeticDecoder;

// An adaptive model of the symbols 0 to A - 1. Counts exist for 0 to A, all starting at 1,
// while the total starts at A, so that A takes no code space. Cumulative counts come from a
// Fenwick tree.
class SLICEIO_API ModelOrder2 : public ModelI2
{
public:
    explicit ModelOrder2(unsigned alphabet);
    unsigned Alphabet() const { return _alphabet; }
    std::uint32_t Total() const { return _total; }
    // Count of the symbols below s.
    std::uint32_t Cumulative(unsigned s) const;
    std::uint32_t Count(unsigned s) const { return _counts[s]; }
    // The symbol whose range holds value (below the total).
    unsigned Find(std::uint32_t value) const;
    void Update(unsigned s);

    virtual bool Encode(M2DArithmeticEncoder& coder, unsigned symbol);
    // Decodes symbols until the alphabet's last one; the symbols before it are appended to out.
    virtual bool DecodeUntilLast(M2DArithmeticDecoder& coder, std::vector<unsigned>& out);
    // One symbol; false on a code outside the model's range.
    bool Decode(M2DArithmeticDecoder& coder, unsigned& symbol);

private:
    unsigned _alphabet;
    std::uint32_t _total;
    std::vector<std::uint32_t> _counts; // 0 .. A
    std::vector<std::uint32_t> _tree;   // Fenwick tree over the counts, 1-based
    unsigned _topBit = 1;
};

// Highest model total the coder accepts: step stays positive below it.
constexpr std::uint32_t kMaxModelTotal = 1u << 29;

class SLICEIO_API M2DArithmeticEncoder
{
public:
    explicit M2DArithmeticEncoder(M2DBitOutStream& out) : _out(out) {}
    // Codes the range [a, b) of total; false when the total is out of the coder's range.
    bool Encode(std::uint32_t a, std::uint32_t b, std::uint32_t total);
    // Ends the code: 0 and pending + 1 ones when low is below a quarter, else a single 1.
    void Finish();

private:
    void _Emit(unsigned bit);
    M2DBitOutStream& _out;
    std::uint32_t _low = 0;
    std::uint32_t _high = 0x7FFFFFFF;
    std::uint64_t _pending = 0;
};

class SLICEIO_API M2DArithmeticDecoder
{
public:
    explicit M2DArithmeticDecoder(M2DBitInStream& in) : _in(in) {}
    // The value in [0, total) of the next symbol; false when the code lies outside the range.
    bool Target(std::uint32_t total, std::uint32_t& value);
    // Takes the symbol's range [a, b) of the total given to Target.
    void Apply(std::uint32_t a, std::uint32_t b);

private:
    M2DBitInStream& _in;
    std::uint32_t _low = 0;
    std::uint32_t _high = 0x7FFFFFFF;
    std::uint32_t _code = 0;
    std::uint32_t _step = 0;
    bool _started = false;
};

} // namespace Sectioned
