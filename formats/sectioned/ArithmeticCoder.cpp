#include "ArithmeticCoder.h"

#include <algorithm>

#include "../../contracts/MFile.h"

namespace Sectioned {

namespace {
constexpr std::uint32_t kHalf = 0x40000000;
constexpr std::uint32_t kQuarter = 0x20000000;
constexpr std::uint32_t kThreeQuarters = 0x60000000;
constexpr std::size_t kBufferBytes = 8;
constexpr std::size_t kReadBytes = 65536;
} // namespace

// ------------------------------------------------------------------ bit streams

void M2DBitOutStream::_PutByte()
{
    _buffer.push_back(_byte);
    _byte = 0;
    _bits = 0;
    if (_buffer.size() == kBufferBytes)
    {
        _ok = _ok && _file.WriteBytes(_buffer.data(), _buffer.size()) == _buffer.size();
        _written += _buffer.size();
        _buffer.clear();
    }
}

bool M2DBitOutStream::Flush()
{
    if (_bits > 0)
    {
        _byte = static_cast<std::uint8_t>(_byte << (8 - _bits));
        _PutByte();
    }
    if (!_buffer.empty())
    {
        _ok = _ok && _file.WriteBytes(_buffer.data(), _buffer.size()) == _buffer.size();
        _written += _buffer.size();
        _buffer.clear();
    }
    return _ok;
}

void M2DBitInStream::_Fill()
{
    if (_at >= _buffer.size())
    {
        _buffer.clear();
        _at = 0;
        const std::int64_t left = _end - _file.TELL();
        if (left > 0)
        {
            _buffer.resize(static_cast<std::size_t>(std::min<std::int64_t>(left, kReadBytes)));
            _buffer.resize(_file.ReadBytes(_buffer.data(), _buffer.size()));
            _available += 8 * _buffer.size();
        }
    }
    _byte = _at < _buffer.size() ? _buffer[_at++] : 0; // past the end: zero bits
    _bits = 8;
}

// ------------------------------------------------------------------ models

ModelOrder2::ModelOrder2(unsigned alphabet)
    : _alphabet(alphabet), _total(alphabet), _counts(alphabet + 1, 1), _tree(alphabet + 2, 0)
{
    for (unsigned s = 0; s <= alphabet; ++s)
        for (std::size_t i = s + 1; i < _tree.size(); i += i & (0 - i))
            _tree[i] += 1;
    while (_topBit * 2 < _tree.size())
        _topBit *= 2;
}

std::uint32_t ModelOrder2::Cumulative(unsigned s) const
{
    std::uint32_t sum = 0;
    for (std::size_t i = s; i > 0; i -= i & (0 - i))
        sum += _tree[i];
    return sum;
}

unsigned ModelOrder2::Find(std::uint32_t value) const
{
    // The largest position whose prefix sum is at most value is the symbol.
    std::size_t at = 0;
    for (std::size_t bit = _topBit; bit > 0; bit >>= 1)
    {
        const std::size_t next = at + bit;
        if (next < _tree.size() && _tree[next] <= value)
        {
            at = next;
            value -= _tree[next];
        }
    }
    return static_cast<unsigned>(at);
}

void ModelOrder2::Update(unsigned s)
{
    ++_counts[s];
    ++_total;
    for (std::size_t i = s + 1; i < _tree.size(); i += i & (0 - i))
        ++_tree[i];
}

bool ModelOrder2::Encode(M2DArithmeticEncoder& coder, unsigned symbol)
{
    if (symbol >= _alphabet || _total >= kMaxModelTotal)
        return false;
    const std::uint32_t a = Cumulative(symbol);
    if (!coder.Encode(a, a + _counts[symbol], _total))
        return false;
    Update(symbol);
    return true;
}

bool ModelOrder2::Decode(M2DArithmeticDecoder& coder, unsigned& symbol)
{
    std::uint32_t value = 0;
    if (_total >= kMaxModelTotal || !coder.Target(_total, value))
        return false;
    symbol = Find(value);
    if (symbol >= _alphabet)
        return false;
    const std::uint32_t a = Cumulative(symbol);
    coder.Apply(a, a + _counts[symbol]);
    Update(symbol);
    return true;
}

bool ModelOrder2::DecodeUntilLast(M2DArithmeticDecoder& coder, std::vector<unsigned>& out)
{
    unsigned symbol = 0;
    while (Decode(coder, symbol))
    {
        if (symbol + 1 == _alphabet)
            return true;
        out.push_back(symbol);
    }
    return false;
}

// ------------------------------------------------------------------ coder

void M2DArithmeticEncoder::_Emit(unsigned bit)
{
    _out.Put(bit);
    _out.PutRepeated(bit ^ 1u, _pending);
    _pending = 0;
}

bool M2DArithmeticEncoder::Encode(std::uint32_t a, std::uint32_t b, std::uint32_t total)
{
    if (total == 0 || total >= kMaxModelTotal || a >= b || b > total)
        return false;
    // The step first, then high from the old low.
    const std::uint32_t step = (_high - _low + 1) / total;
    _high = _low + step * b - 1;
    _low = _low + step * a;
    for (;;)
    {
        if (_high < kHalf)
        {
            _Emit(0);
            _low = 2 * _low;
            _high = 2 * _high + 1;
        }
        else if (_low >= kHalf)
        {
            _Emit(1);
            _low = 2 * (_low - kHalf);
            _high = 2 * (_high - kHalf) + 1;
        }
        else if (_low >= kQuarter && _high < kThreeQuarters)
        {
            ++_pending;
            _low = 2 * (_low - kQuarter);
            _high = 2 * (_high - kQuarter) + 1;
        }
        else
            return true;
    }
}

void M2DArithmeticEncoder::Finish()
{
    if (_low < kQuarter)
    {
        _out.Put(0);
        _out.PutRepeated(1, _pending + 1);
    }
    else
        _out.Put(1); // the pending bits are dropped: zeros after it would give them
    _pending = 0;
}

bool M2DArithmeticDecoder::Target(std::uint32_t total, std::uint32_t& value)
{
    if (!_started)
    {
        for (int i = 0; i < 31; ++i)
            _code = (_code << 1) | _in.Get();
        _started = true;
    }
    else
        for (;;)
        {
            if (_high < kHalf)
            {
                _low = 2 * _low;
                _high = 2 * _high + 1;
                _code = 2 * _code + _in.Get();
            }
            else if (_low >= kHalf)
            {
                _low = 2 * (_low - kHalf);
                _high = 2 * (_high - kHalf) + 1;
                _code = 2 * (_code - kHalf) + _in.Get();
            }
            else if (_low >= kQuarter && _high < kThreeQuarters)
            {
                _low = 2 * (_low - kQuarter);
                _high = 2 * (_high - kQuarter) + 1;
                _code = 2 * (_code - kQuarter) + _in.Get();
            }
            else
                break;
        }
    if (total == 0 || _code < _low || _code > _high)
        return false;
    _step = (_high - _low + 1) / total;
    if (_step == 0)
        return false;
    value = (_code - _low) / _step;
    return value < total;
}

void M2DArithmeticDecoder::Apply(std::uint32_t a, std::uint32_t b)
{
    _high = _low + _step * b - 1;
    _low = _low + _step * a;
}

} // namespace Sectioned
