"""The Python module against the library and the sliceio tool.

Run with the build's python folder on PYTHONPATH (bash cmake/test.sh python does it);
SLICEIO_TOOL names the sliceio tool of the same build, whose output the module must match.
"""
import json
import os
import struct
import subprocess
import sys

import numpy as np
import pytest

import sliceio

TOOL = os.environ.get("SLICEIO_TOOL")
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def tool(*args):
    if not TOOL:
        pytest.skip("SLICEIO_TOOL is not set")
    return subprocess.run([TOOL, *args], check=True, capture_output=True, text=True).stdout


def square(x0, y0, size, outer=True):
    """A closed square (the closing segment is implied), outer ones with a positive
    (y1 + y2) * (x2 - x1) sum."""
    pts = [(x0, y0), (x0, y0 + size), (x0 + size, y0 + size), (x0 + size, y0)]
    if not outer:
        pts.reverse()
    return np.array(pts, dtype=float)


def sample_layers(n=4):
    layers = []
    for i in range(n):
        hatch = np.array([[1.5, 2.25, 8.125, 2.25], [8.125, 3.0, 1.5, 3.0]]) + [0, i, 0, i]
        layers.append(sliceio.Layer(
            0.05 * (i + 1),
            contours=[sliceio.Contour(square(0, 0, 10), part_id=3),
                      sliceio.Contour(square(2, 2, 4, outer=False), outer=False, part_id=3)],
            vector_blocks=[sliceio.VectorBlock(hatch, part_id=3)],
        ))
    return layers


@pytest.fixture
def cli_file(tmp_path):
    path = tmp_path / "sample.cli"
    sliceio.write(sample_layers(), path, type=0, resolution=1000)
    return path


def test_round_trip_keeps_geometry_labels_and_heights(cli_file):
    build = sliceio.read(cli_file)
    assert build.type_code == 0 and build.format == "CLI (binary, long)"
    assert build.resolution == 1000
    assert [round(layer.height_mm, 6) for layer in build] == [0.05, 0.1, 0.15, 0.2]
    for i, (got, sent) in enumerate(zip(build, sample_layers())):
        assert len(got.contours) == 2 and len(got.vector_blocks) == 1 and got.point_blocks == []
        for c, s in zip(got.contours, sent.contours):
            # CLI stores a closed contour from its last point on and repeats that point at the
            # end; a reader keeps the repeat.
            assert c.points.dtype == np.float64 and c.points.shape == (5, 2)
            np.testing.assert_array_equal(c.points, np.vstack([s.points[-1:], s.points]))
            assert (c.closed, c.outer) == (True, s.outer)
            assert c.vector_type == 1
        block = got.vector_blocks[0]
        assert block.vectors.shape == (2, 4) and block.vectors.dtype == np.float64
        # x1 y1 x2 y2 in that order, exact at 1/1000 mm steps.
        np.testing.assert_array_equal(block.vectors, [[1.5, 2.25 + i, 8.125, 2.25 + i], [8.125, 3.0 + i, 1.5, 3.0 + i]])
        # The CLI writer numbers a layer's slices, which is the id a reader reports as the part.
        assert (block.vector_type, block.part_id) == (6, 0)


def test_file_bytes_of_a_hatch_record_and_its_id_read_as_part(tmp_path):
    # One layer at 0.05 mm with one hatch vector (1, 2) -> (3, 4) mm, long form, 1/1000 mm:
    # layer command 127 with z 50 as a float, then hatch command 132, id 0 (the slice's place
    # in the layer), count 1, and the four coordinates as 32-bit floats of file steps.
    path = tmp_path / "one.cli"
    layer = sliceio.Layer(0.05, vector_blocks=[sliceio.VectorBlock([[1, 2, 3, 4]])])
    sliceio.write([layer], path, type=0, resolution=1000)
    data = path.read_bytes()
    start = data.index(b"$$HEADEREND") + len(b"$$HEADEREND")
    expected = struct.pack("<Hf", 127, 50.0) + struct.pack("<Hii4f", 132, 0, 1, 1000.0, 2000.0, 3000.0, 4000.0)
    assert data[start:] == expected
    # The same record with id 3: the reader labels the block part 3.
    patched = tmp_path / "part3.cli"
    patched.write_bytes(data[:start] + expected[:8] + struct.pack("<i", 3) + expected[12:])
    block = sliceio.read(patched)[0].vector_blocks[0]
    assert block.part_id == 3
    np.testing.assert_array_equal(block.vectors, [[1, 2, 3, 4]])


def test_lazy_open_indexes_iterates_and_matches_whole_read(cli_file):
    build = sliceio.open(cli_file)
    assert len(build) == 4
    assert build[-1].height_mm == pytest.approx(0.2)
    with pytest.raises(IndexError):
        build[4]
    whole = sliceio.read(cli_file)
    for lazy, full in zip(build, whole):
        np.testing.assert_array_equal(lazy.vector_blocks[0].vectors, full.vector_blocks[0].vectors)
    assert [l.height_mm for l in build[1:3]] == pytest.approx([0.1, 0.15])
    assert build.heights == pytest.approx([0.05, 0.1, 0.15, 0.2])


def test_info_is_what_the_tool_prints(cli_file):
    info = sliceio.open(cli_file).info()
    printed = json.loads(tool("info", str(cli_file), "--json"))
    assert set(info) == set(printed)
    for key, value in printed.items():
        if isinstance(value, float):
            assert info[key] == pytest.approx(value, abs=1e-6), key
        else:
            assert info[key] == value, key
    assert info["layers"] == 4 and info["contours"] == 8 and info["vector_blocks"] == 4
    assert info["surface_area_mm2"] == pytest.approx(4 * (100 - 16))


def test_formats_is_the_tools_table():
    rows = sliceio.formats()
    printed = tool("formats").splitlines()[1:]
    by_code = {int(line.split()[0]): line for line in printed if line.split()[0].isdigit()}
    assert sorted(by_code) == [row["code"] for row in rows]
    for row in rows:
        words = by_code[row["code"]].split()
        assert words[-2:] == ["yes" if row["read"] else "no", "yes" if row["write"] else "no"], row
        assert row["format"] in by_code[row["code"]]
    cli = next(row for row in rows if row["code"] == 0)
    assert cli["read"] and cli["write"] and cli["extensions"] == [".cli"]
    # A written-only format, where this build has one, is not offered for reading.
    for row in rows:
        if row["code"] in (50, 55):
            assert not row["read"]


def test_convert_keeps_a_range_drops_empty_layers_and_takes_the_input_step(cli_file, tmp_path):
    layers = sample_layers(3)
    layers.insert(1, sliceio.Layer(0.075))
    src = tmp_path / "gappy.cli"
    sliceio.write(layers, src, type=0, resolution=1000, settings={"write_empty_layers": True})
    assert len(sliceio.open(src)) == 4
    out = tmp_path / "short.cli"
    result = sliceio.convert(src, out, to=35, drop_empty_layers=True)
    assert result == {"layers": 3, "type_code": 35, "format": "CLI (binary, short)", "resolution": 1000}
    back = sliceio.open(out)
    assert back.type_code == 35 and len(back) == 3
    part = tmp_path / "part.cli"
    assert sliceio.convert(cli_file, part, layers=range(1, 3))["layers"] == 2
    assert sliceio.open(part).heights == pytest.approx([0.1, 0.15])


def test_inches_and_a_lazy_build_as_source(cli_file, tmp_path):
    out = tmp_path / "inch.cli"
    sliceio.write(sliceio.open(cli_file), out, type=0, units="inch", resolution=10000)
    back = sliceio.read(out)
    assert len(back) == 4
    # The file counts 1/10000 inch steps; CLI has no inch unit, so the steps read back as if
    # the unit were the millimetre: the numbers come back in inches, within half a step.
    np.testing.assert_allclose(back[0].vector_blocks[0].vectors, sample_layers()[0].vector_blocks[0].vectors / 25.4,
                               atol=0.5 / 10000 + 1e-9)


def test_failures_raise_sliceio_error_with_one_line(cli_file, tmp_path):
    with pytest.raises(sliceio.Error, match="missing.cli"):
        sliceio.open(tmp_path / "missing.cli")
    truncated = tmp_path / "cut.cli"
    data = cli_file.read_bytes()
    truncated.write_bytes(data[: data.index(b"$$HEADEREND") - 3])
    with pytest.raises(sliceio.Error) as caught:
        sliceio.read(truncated)
    message = str(caught.value)
    assert "cut.cli" in message and "\n" not in message
    with pytest.raises(sliceio.Error, match="not a file-type code"):
        sliceio.write(sample_layers(), tmp_path / "x.cli", type=2)
    with pytest.raises(sliceio.Error, match="output format"):
        sliceio.write(sample_layers(), tmp_path / "x.unknown")
    with pytest.raises(sliceio.Error, match="item 1 is not a sliceio.Layer"):
        sliceio.write([sliceio.Layer(0.1), "layer"], tmp_path / "x.cli")
    with pytest.raises(sliceio.Error, match="item 0 is not"):
        sliceio.write([sliceio.Layer(0.1, contours=[np.zeros((3, 2))])], tmp_path / "x.cli")
    with pytest.raises(sliceio.Error, match="N x 4"):
        sliceio.VectorBlock(np.zeros((3, 3)))
    with pytest.raises(sliceio.Error, match="out of the range"):
        sliceio.write([sliceio.Layer(1e9)], tmp_path / "far.cli")
    # A code with no format in this build, or a written-only one, is refused by name.
    with pytest.raises(sliceio.Error, match="not a file-type code|only be written"):
        sliceio.open(cli_file, type=50)
    assert issubclass(sliceio.Error, RuntimeError)


def test_labels_go_both_ways():
    block = sliceio.VectorBlock(np.zeros((0, 4)), vector_type=8, part_id=2, parameter=5, numbers={1: 0.5}, flags=[3])
    assert (block.vector_type, block.part_id, block.parameter, block.numbers, block.flags) == (8, 2, 5, {1: 0.5}, [3])
    points = sliceio.PointBlock([[1.0, 2.0]])
    assert points.points.shape == (1, 2)


def test_plot_example_writes_a_png(cli_file, tmp_path):
    png = tmp_path / "layer.png"
    subprocess.run([sys.executable, os.path.join(ROOT, "examples", "plot_layer.py"), str(cli_file), "2", str(png)],
                   check=True, env=dict(os.environ, MPLBACKEND="Agg"))
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_arrays_outlive_their_build_and_later_reads(cli_file, tmp_path):
    # The arrays of a read share memory; one kept array keeps its share while the rest goes
    # and while later reads take memory of their own.
    kept = sliceio.read(cli_file)[2].vector_blocks[0].vectors
    expected = kept.copy()
    other = tmp_path / "other.cli"
    sliceio.write([sliceio.Layer(0.1 * (i + 1), vector_blocks=[sliceio.VectorBlock(np.full((1000, 4), 7.0))])
                   for i in range(20)], other)
    for _ in range(3):
        again = sliceio.read(other)
        assert all((layer.vector_blocks[0].vectors == 7.0).all() for layer in again)
        del again
    np.testing.assert_array_equal(kept, expected)
    kept[0, 0] = -1.0  # writable, like any array
