#include "ArithmeticCoder.h"

#include <algorithm>

#include "../../contracts/MFile.h"

namespace Sectioned {

namespace {
constexpr std::size_t kWriteBytes = 65536;
constexpr std::size_t kReadBytes = 65536;
} // namespace

// ------------------------------------------------------------------ bit streams

M2DBitOutStream::M2DBitOutStream(MFile& file) : _file(file), _buffer(kWriteBytes) {}

void M2DBitOutStream::_Drain()
{
    if (_used > 0)
        _ok = _ok && _file.WriteBytes(_buffer.data(), _used) == _used;
    _written += _used;
    _used = 0;
}

bool M2DBitOutStream::Flush()
{
    // Whole bytes of the window first, then the last partial one padded with zeros.
    while (_count >= 8)
    {
        _count -= 8;
        *_Reserve(1) = static_cast<unsigned char>(_window >> _count);
    }
    if (_count > 0)
    {
        *_Reserve(1) = static_cast<unsigned char>(_window << (8 - _count));
        _count = 0;
    }
    _Drain();
    return _ok;
}

bool M2DBitInStream::_Fill()
{
    _buffer.clear();
    _at = 0;
    const std::int64_t left = _end - _file.TELL();
    if (left <= 0)
        return false;
    _buffer.resize(static_cast<std::size_t>(std::min<std::int64_t>(left, kReadBytes)));
    _buffer.resize(_file.ReadBytes(_buffer.data(), _buffer.size()));
    return !_buffer.empty();
}

void M2DBitInStream::_Refill()
{
    while (_count <= 56)
    {
        if (_at >= _buffer.size() && !_Fill())
        {
            // Past the end: zero bits, as many as are asked for.
            _count = 64;
            return;
        }
        _window |= static_cast<std::uint64_t>(_buffer[_at++]) << (56 - _count);
        _count += 8;
    }
}

// ------------------------------------------------------------------ models

ModelOrder2::ModelOrder2(unsigned alphabet) : _alphabet(alphabet), _total(alphabet), _counts(alphabet + 1, 1)
{
    // Places 1 .. A + 1 hold the counts of 0 .. A; the tree spans the next power of two.
    while (_topBit < alphabet + 1u)
    {
        _topBit *= 2;
        ++_levels;
    }
    _tree.assign(_topBit + 2, 0);
    for (unsigned s = 0; s <= alphabet; ++s)
        for (std::size_t i = s + 1; i <= _topBit; i += i & (0 - i))
            _tree[i] += 1;
}

bool ModelOrder2::Encode(M2DArithmeticEncoder& coder, unsigned symbol) { return EncodeSymbol(coder, symbol); }

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

void M2DArithmeticEncoder::Finish()
{
    if (_low < detail::kQuarter)
    {
        _out.Put(0);
        _out.PutRepeated(1, _pending + 1);
    }
    else
        _out.Put(1); // the pending bits are dropped: zeros after it would give them
    _pending = 0;
}

} // namespace Sectioned
