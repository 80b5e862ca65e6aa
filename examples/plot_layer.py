"""Draws one layer of a slice file into a PNG with matplotlib: contours as lines (outer ones
dark, holes red), hatch vectors as thin segments, all in millimetres.

    PYTHONPATH=build/python /usr/bin/python3 examples/plot_layer.py FILE LAYER OUT.png
"""
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
from matplotlib.collections import LineCollection  # noqa: E402

import sliceio  # noqa: E402


def main(path, index, out):
    build = sliceio.open(path)
    layer = build[index]
    fig, ax = plt.subplots(figsize=(8, 8))
    for block in layer.vector_blocks:
        # M x 4 rows of x1 y1 x2 y2 -> M segments of two points, no Python loop over vectors.
        ax.add_collection(LineCollection(block.vectors.reshape(-1, 2, 2), linewidths=0.3, colors="tab:blue"))
    for contour in layer.contours:
        ax.plot(contour.points[:, 0], contour.points[:, 1], color="black" if contour.outer else "tab:red",
                linewidth=1.0)
    ax.set_aspect("equal")
    ax.autoscale()
    ax.set_xlabel("x (mm)")
    ax.set_ylabel("y (mm)")
    ax.set_title(f"{path}: layer {index} at {layer.height_mm:.3f} mm")
    fig.savefig(out, dpi=100)
    print(f"{path}: layer {index} drawn into {out}")


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit("usage: plot_layer.py FILE LAYER OUT.png")
    try:
        main(sys.argv[1], int(sys.argv[2]), sys.argv[3])
    except sliceio.Error as e:
        sys.exit(str(e))
