"""Reads and writes the 2D slice files of additive-manufacturing machines.

    import sliceio
    build = sliceio.open("part.cli")          # lazy: one scan, then any layer on demand
    layer = build[10]
    for block in layer.vector_blocks:
        block.vectors                          # M x 4 float64 array, mm: x1 y1 x2 y2
    whole = sliceio.read("part.cli")           # every layer at once
    sliceio.write(whole, "copy.cli", type=35, resolution=1000)
    sliceio.convert("part.cli", "part_short.cli", to=35)

Coordinates and heights are millimetres. Every failure raises sliceio.Error with one line
naming the file and what failed.
"""

import builtins as _builtins
import os as _os

from . import _sliceio
from ._sliceio import Contour, Error, Layer, PointBlock, VectorBlock

__all__ = [
    "Build", "Contour", "Error", "Layer", "LazyBuild", "PointBlock", "VectorBlock",
    "convert", "formats", "open", "read", "write",
]

# The file-type codes of the format families in this build: code, format, usual extensions,
# written only. The library's descriptors are the one source of them.
_TABLE = [tuple(row) for row in _sliceio.code_table()]
_NAMES = {code: name for code, name, _, _ in _TABLE}
_WRITE_ONLY = {code for code, _, _, write_only in _TABLE if write_only}


def formats():
    """The file-type code table, as 'sliceio formats' prints it: one dict per code with
    code, format, extensions (list), read and write (whether this build can)."""
    rows = []
    for code, name, extensions, write_only in _TABLE:
        available = _sliceio.available(code)
        rows.append({
            "code": code,
            "format": name,
            "extensions": extensions.split(),
            "read": available and not write_only,
            "write": available,
        })
    return rows


def _path(path):
    return _os.fsdecode(_os.fspath(path))


def _by_extension(path):
    extension = _os.path.splitext(path)[1].lower()
    for code, _, extensions, _ in _TABLE:
        if extension and extension in extensions.split():
            return code
    return None


def _detect(path):
    """The format of an input file: its content, else its extension."""
    try:
        with _builtins.open(path, "rb") as f:
            head = f.read(_sliceio.sniff_bytes)
    except OSError as e:
        raise Error(f"{path}: cannot be opened: {e.strerror}") from None
    found = _sliceio.sniff(head)
    if found is None or found not in _NAMES:
        found = _by_extension(path)
    if found is None:
        raise Error(f"{path}: unknown format: no known header and no known extension; name it with type=CODE")
    return found, _NAMES[found]


def _input_format(path, type):
    if type is None:
        code, name = _detect(path)
    else:
        code = _code(type, "type")
        name = _NAMES[code]
        if not _os.path.exists(path):
            raise Error(f"{path}: no such file")
    if code in _WRITE_ONLY:
        raise Error(f"{path}: {name} files (code {code}) can only be written, not read")
    return code, name


def _output_format(path, type):
    if type is None:
        code = _by_extension(path)
        if code is None:
            raise Error(f"{path}: cannot tell the output format from the file name; name it with type=CODE")
    else:
        code = _code(type, "type")
    return code, _NAMES[code]


def _code(value, what):
    if isinstance(value, bool) or not isinstance(value, int) or value not in _NAMES:
        raise Error(f"{what} {value!r} is not a file-type code; sliceio.formats() lists them")
    return value


def _unit(units):
    if units in ("mm", None):
        return _sliceio.units_per_mm
    if units == "inch":
        return round(_sliceio.units_per_mm * 25.4)
    raise Error(f"units {units!r} must be 'mm' or 'inch'")


def _resolution(resolution):
    if resolution is None:
        return 1000
    if isinstance(resolution, bool) or not isinstance(resolution, int) or not 1 <= resolution <= 2**31 - 1:
        raise Error(f"resolution {resolution!r} must be a whole number of file steps per unit, at least 1")
    return resolution


class LazyBuild:
    """A slice file opened lazily: len(), build[i] (a Layer), iteration, info(), heights."""

    def __init__(self, path, type=None):
        self.path = _path(path)
        self.type_code, self.format = _input_format(self.path, type)
        self._build = _sliceio.LazyBuild(self.path, self.type_code, self.format)

    def __len__(self):
        return len(self._build)

    def __getitem__(self, index):
        if isinstance(index, slice):
            return [self._build.layer(i) for i in range(*index.indices(len(self)))]
        return self._build.layer(index)

    def __iter__(self):
        for i in range(len(self)):
            yield self._build.layer(i)

    @property
    def heights(self):
        """The layers' heights in mm, from the scan (no layer is read)."""
        return self._build.heights()

    def info(self):
        """What 'sliceio info --json' prints: the same keys, None where there is no value."""
        return self._build.info()

    def __repr__(self):
        return f"<sliceio.LazyBuild {self.path!r}: {len(self)} layers of {self.format}>"


class Build:
    """A whole build in memory: a list of Layers with the format it was read from."""

    def __init__(self, layers=(), type_code=None, format=None, path=None, resolution=None, unit=None):
        self.layers = list(layers)
        self.type_code = type_code
        self.format = format
        self.path = path
        self.resolution = resolution  # file steps per unit, when the file says
        self.unit = unit              # internal units per unit of the file (10000: mm)

    def __len__(self):
        return len(self.layers)

    def __getitem__(self, index):
        return self.layers[index]

    def __iter__(self):
        return iter(self.layers)

    def __repr__(self):
        return f"<sliceio.Build {len(self)} layers{' of ' + self.format if self.format else ''}>"


def open(path, type=None):
    """Opens a slice file lazily: one scan pass, then layers read on demand."""
    return LazyBuild(path, type)


def read(path, type=None):
    """Reads a whole slice file into a Build of Layers (numpy arrays in mm)."""
    path = _path(path)
    code, name = _input_format(path, type)
    layers, unit, resolution = _sliceio.read_layers(path, code, name)
    return Build(layers, code, name, path, resolution if resolution > 1 else None, unit)


_SETTINGS = {"write_empty_layers"}


def write(build_or_layers, path, type=None, units="mm", resolution=None, settings=None):
    """Writes a Build, a LazyBuild or an iterable of Layers as the format type (a file-type code;
    by default the one of path's extension), in millimetres or inches ('mm', 'inch') with
    resolution file steps per unit (default 1000). settings: {'write_empty_layers': bool}."""
    path = _path(path)
    code, name = _output_format(path, type)
    settings = dict(settings or {})
    unknown = set(settings) - _SETTINGS
    if unknown:
        raise Error(f"unknown settings {sorted(unknown)}; known: {sorted(_SETTINGS)}")
    empty = bool(settings.get("write_empty_layers", False))
    unit, steps = _unit(units), _resolution(resolution)
    if isinstance(build_or_layers, LazyBuild):
        build_or_layers._build.write(path, code, name, unit, steps, empty)
    else:
        layers = build_or_layers.layers if isinstance(build_or_layers, Build) else build_or_layers
        _sliceio.write_layers(layers, path, code, name, unit, steps, empty)


def convert(src, dst, type=None, to=None, units="mm", resolution=None, layers=None, drop_empty_layers=False):
    """Reads src (format type, else found from the file) and writes dst as the format to (else by
    dst's extension). resolution: file steps per unit (default: src's step, else 1/1000 mm).
    layers: a range or (first, end) of layer indexes to keep. Returns a dict of what was written."""
    src, dst = _path(src), _path(dst)
    src_code, src_name = _input_format(src, type)
    code, name = _output_format(dst, to)
    unit = _unit(units)
    steps = 0 if resolution is None else _resolution(resolution)
    first, end = 0, 2**64 - 1
    if layers is not None:
        if isinstance(layers, range) and layers.step == 1:
            first, end = layers.start, layers.stop
        elif isinstance(layers, tuple) and len(layers) == 2:
            first, end = layers
        else:
            raise Error(f"layers {layers!r} must be a range or a (first, end) pair")
        if not 0 <= first <= end:
            raise Error(f"layers {layers!r}: first must be at least 0 and at most end")
    return _sliceio.convert(src, src_code, src_name, dst, code, name, unit, steps, False, first, end,
                            bool(drop_empty_layers))
