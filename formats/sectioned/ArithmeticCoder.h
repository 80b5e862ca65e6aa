#pragma once
// The arithmetic coder of the compressed build file: bit streams on an MFile, adaptive
// frequency models and a 31-bit integer coder. Each symbol's count and the model's total
// rise by one after it is coded, with no rescaling: encoder and decoder stay in step only by
// doing the same.
//
// Speed: the hot operations are inline. The coder shifts out all leading bits that low and
// high share in one step, and all pending (straddling) bits in another, which gives the same
// bits as shifting them one at a time, and the decoder does so without branches; the bit
// streams move up to 32 bits per call through a 64-bit window. A model keeps its cumulative
// counts in a Fenwick tree walked a fixed number of steps on update; the decoder finds the
// symbol in one descent of that tree comparing the code's offset with step times the prefix
// sums, which saves a division. The descent keeps its branches: most of its turns are easy
// to predict, and a version without branches measured slower.
#include <algorithm>
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
    explicit M2DBitOutStream(MFile& file);
    void Put(unsigned bit) { PutBits(bit & 1u, 1); }
    // The low n bits of value (n at most 32), most significant first.
    void PutBits(std::uint32_t value, unsigned n)
    {
        _window = (_window << n) | value;
        _count += n;
        if (_count >= 32)
        {
            _count -= 32;
            const auto word = static_cast<std::uint32_t>(_window >> _count);
            unsigned char* at = _Reserve(4);
            at[0] = static_cast<unsigned char>(word >> 24);
            at[1] = static_cast<unsigned char>(word >> 16);
            at[2] = static_cast<unsigned char>(word >> 8);
            at[3] = static_cast<unsigned char>(word);
        }
    }
    void PutRepeated(unsigned bit, std::uint64_t n)
    {
        const std::uint32_t ones = bit ? 0xFFFFFFFFu : 0u;
        for (; n >= 32; n -= 32)
            PutBits(ones, 32);
        if (n > 0)
            PutBits(ones >> (32 - n), static_cast<unsigned>(n));
    }
    // Pads the last byte with zeros and writes what is buffered; false when a write failed.
    bool Flush();
    std::uint64_t BitsWritten() const { return 8 * (_written + _used) + _count; }

private:
    unsigned char* _Reserve(std::size_t n)
    {
        if (_used + n > _buffer.size())
            _Drain();
        unsigned char* at = _buffer.data() + _used;
        _used += n;
        return at;
    }
    void _Drain();
    MFile& _file;
    std::vector<unsigned char> _buffer;
    std::size_t _used = 0;
    std::uint64_t _written = 0;
    std::uint64_t _window = 0; // the low _count bits are not yet in the buffer
    unsigned _count = 0;
    bool _ok = true;
};

// Bits of the file from its position up to an end offset; past the end every bit is zero.
class SLICEIO_API M2DBitInStream
{
public:
    M2DBitInStream(MFile& file, std::int64_t end) : _file(file), _end(end) {}
    unsigned Get() { return GetBits(1); }
    // The next n bits (n from 0 to 31), the first in the highest place.
    std::uint32_t GetBits(unsigned n)
    {
        if (_count < n)
            _Refill();
        const auto bits = static_cast<std::uint32_t>((_window >> 1) >> (63 - n));
        _window <<= n;
        _count -= n;
        return bits;
    }

private:
    void _Refill();
    bool _Fill();
    MFile& _file;
    std::int64_t _end;
    std::vector<unsigned char> _buffer;
    std::size_t _at = 0;
    std::uint64_t _window = 0; // the next _count bits, from the top
    unsigned _count = 0;
};

class SLICEIO_API ModelI2
{
public:
    virtual ~ModelI2() = default;
};

class M2DArithmeticEncoder;
class M2DArithmeticDecoder;

// Highest model total the coder accepts: step stays positive below it.
constexpr std::uint32_t kMaxModelTotal = 1u << 29;

// An adaptive model of the symbols 0 to A - 1. Counts exist for 0 to A, all starting at 1,
// while the total starts at A, so that A takes no code space. Cumulative counts come from a
// Fenwick tree over a power-of-two number of places (those past A hold zero), so that a
// descent needs no bounds check.
class SLICEIO_API ModelOrder2 : public ModelI2
{
public:
    explicit ModelOrder2(unsigned alphabet);
    unsigned Alphabet() const { return _alphabet; }
    std::uint32_t Total() const { return _total; }
    // Count of the symbols below s.
    std::uint32_t Cumulative(unsigned s) const
    {
        // A fixed number of steps, so that no branch depends on the symbol: once the place
        // reaches 0, whose sum is 0, it stays there.
        const std::uint32_t* tree = _tree.data();
        std::uint32_t sum = 0;
        std::size_t i = s;
        for (unsigned k = 0; k < _levels; ++k)
        {
            sum += tree[i];
            i &= i - 1;
        }
        return sum;
    }
    std::uint32_t Count(unsigned s) const { return _counts[s]; }
    // The symbol whose range holds value (below the total).
    unsigned Find(std::uint32_t value) const
    {
        std::uint32_t below = 0;
        return _Descend(value, below);
    }
    void Update(unsigned s)
    {
        ++_counts[s];
        ++_total;
        // A fixed number of steps as well: places past the tree go to a sink that is never read.
        std::uint32_t* tree = _tree.data();
        const std::size_t sink = _topBit + 1;
        std::size_t i = s + 1;
        for (unsigned k = 0; k < _levels; ++k)
        {
            ++tree[i <= _topBit ? i : sink];
            i += i & (0 - i);
        }
    }

    virtual bool Encode(M2DArithmeticEncoder& coder, unsigned symbol);
    // Decodes symbols until the alphabet's last one; the symbols before it are appended to out.
    virtual bool DecodeUntilLast(M2DArithmeticDecoder& coder, std::vector<unsigned>& out);
    // One symbol; false on a code outside the model's range.
    inline bool Decode(M2DArithmeticDecoder& coder, unsigned& symbol);
    // What Encode does, without the virtual call.
    inline bool EncodeSymbol(M2DArithmeticEncoder& coder, unsigned symbol);

private:
    // The largest place whose prefix sum is at most value, with that prefix sum.
    unsigned _Descend(std::uint32_t value, std::uint32_t& below) const { return _Descend(value, 1, below); }
    // The same for the value offset / step, without dividing: a prefix sum is at most the
    // value exactly when step times it is at most the offset.
    unsigned _Descend(std::uint32_t offset, std::uint32_t step, std::uint32_t& below) const
    {
        const std::uint32_t* tree = _tree.data();
        std::size_t at = 0;
        std::uint32_t sum = 0;
        // The last place holds every count, A's included, which is more than any value: the
        // descent starts below it and stays inside the tree.
        for (std::size_t bit = _topBit >> 1; bit > 0; bit >>= 1)
        {
            const std::size_t next = at + bit;
            const std::uint32_t scaled = tree[next] * step;
            if (scaled <= offset)
            {
                at = next;
                offset -= scaled;
                sum += tree[next];
            }
        }
        below = sum;
        return static_cast<unsigned>(at);
    }

    unsigned _alphabet;
    std::uint32_t _total;
    std::vector<std::uint32_t> _counts; // 0 .. A
    std::vector<std::uint32_t> _tree;   // Fenwick tree over the counts, 1-based, power-of-two places, and a sink
    std::size_t _topBit = 1;
    unsigned _levels = 1;               // bits of a place

};

namespace detail {
constexpr std::uint32_t kHalf = 0x40000000;
constexpr std::uint32_t kQuarter = 0x20000000;
constexpr std::uint32_t kMask = 0x7FFFFFFF;

inline unsigned LeadingZeros(std::uint32_t v) { return v ? static_cast<unsigned>(__builtin_clz(v)) : 32u; }
} // namespace detail

class SLICEIO_API M2DArithmeticEncoder
{
public:
    explicit M2DArithmeticEncoder(M2DBitOutStream& out) : _out(out) {}
    // Codes the range [a, b) of total; false when the total is out of the coder's range.
    bool Encode(std::uint32_t a, std::uint32_t b, std::uint32_t total)
    {
        if (total == 0 || total >= kMaxModelTotal || a >= b || b > total)
            return false;
        // The step first, then high from the old low.
        const std::uint32_t step = (_high - _low + 1) / total;
        _high = _low + step * b - 1;
        _low = _low + step * a;
        _Normalise();
        return true;
    }
    // Ends the code: 0 and pending + 1 ones when low is below a quarter, else a single 1.
    void Finish();

private:
    void _Normalise()
    {
        using namespace detail;
        // Every leading bit low and high share is decided: out with it, the first one followed
        // by the pending bits of the other value.
        const unsigned same = std::min(LeadingZeros((_low ^ _high) << 1), 31u);
        if (_pending == 0)
            _out.PutBits(_low >> (31 - same), same); // nothing when same is 0
        else if (same > 0)
        {
            const std::uint32_t bits = _low >> (31 - same);
            const unsigned first = bits >> (same - 1);
            _out.PutBits(first, 1);
            _out.PutRepeated(first ^ 1u, _pending);
            _pending = 0;
            _out.PutBits(bits & ((1u << (same - 1)) - 1), same - 1);
        }
        // Shifts by 0 leave both as they are: no branch on the count.
        _low = (_low << same) & kMask;
        _high = ((_high << same) | ((1u << same) - 1)) & kMask;
        // Now low is below the half and high at least there. While low is at least a quarter
        // and high below three quarters, the next bit is pending: each such step drops the
        // second bit of both.
        const unsigned straddle = LeadingZeros(~((_low & ~_high) << 2));
        _pending += straddle;
        _low = (_low << straddle) & (kHalf - 1);
        _high = (((_high << straddle) | ((1u << straddle) - 1)) & (kHalf - 1)) | kHalf;
    }

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
    bool Target(std::uint32_t total, std::uint32_t& value)
    {
        std::uint32_t offset = 0;
        if (!Start(total, offset))
            return false;
        value = offset / _step;
        return true;
    }
    // Target without its division: the code's offset from low, and the step of this total
    // (the value is offset / step). False when the code lies outside the range.
    bool Start(std::uint32_t total, std::uint32_t& offset)
    {
        if (!_started)
        {
            _code = _in.GetBits(31);
            _started = true;
        }
        else
            _Normalise();
        if (total == 0 || _code < _low || _code > _high)
            return false;
        _step = (_high - _low + 1) / total;
        offset = _code - _low;
        // step x total is at most the range, so no product below overflows.
        return _step != 0 && offset < _step * total;
    }
    std::uint32_t Step() const { return _step; }
    // Takes the symbol's range [a, b) of the total given to Target.
    void Apply(std::uint32_t a, std::uint32_t b)
    {
        _high = _low + _step * b - 1;
        _low = _low + _step * a;
    }

private:
    void _Normalise()
    {
        using namespace detail;
        // The same steps as the encoder's, with the code shifted alongside and fed new bits;
        // without branches, as shifts by 0 change nothing.
        const unsigned same = std::min(LeadingZeros((_low ^ _high) << 1), 31u);
        _low = (_low << same) & kMask;
        _high = ((_high << same) | ((1u << same) - 1)) & kMask;
        _code = ((_code << same) | _in.GetBits(same)) & kMask;
        const unsigned straddle = LeadingZeros(~((_low & ~_high) << 2));
        _low = (_low << straddle) & (kHalf - 1);
        _high = (((_high << straddle) | ((1u << straddle) - 1)) & (kHalf - 1)) | kHalf;
        // Each step takes away the code's second bit and keeps its first.
        _code = (_code & kHalf) | (((_code << straddle) | _in.GetBits(straddle)) & (kHalf - 1));
    }

    M2DBitInStream& _in;
    std::uint32_t _low = 0;
    std::uint32_t _high = 0x7FFFFFFF;
    std::uint32_t _code = 0;
    std::uint32_t _step = 0;
    bool _started = false;
};

inline bool ModelOrder2::EncodeSymbol(M2DArithmeticEncoder& coder, unsigned symbol)
{
    if (symbol >= _alphabet || _total >= kMaxModelTotal)
        return false;
    const std::uint32_t a = Cumulative(symbol);
    if (!coder.Encode(a, a + _counts[symbol], _total))
        return false;
    Update(symbol);
    return true;
}

inline bool ModelOrder2::Decode(M2DArithmeticDecoder& coder, unsigned& symbol)
{
    std::uint32_t offset = 0;
    if (_total >= kMaxModelTotal || !coder.Start(_total, offset))
        return false;
    std::uint32_t a = 0;
    symbol = _Descend(offset, coder.Step(), a);
    if (symbol >= _alphabet)
        return false;
    coder.Apply(a, a + _counts[symbol]);
    Update(symbol);
    return true;
}

} // namespace Sectioned
