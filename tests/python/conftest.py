# SPDX-License-Identifier: MIT
import pathlib
import sys

sys.path.append(str(pathlib.Path(__file__).parents[1] / "programs"))  # frames
pytest_plugins = ["velta.testing"]
