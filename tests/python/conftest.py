# SPDX-License-Identifier: MIT
pytest_plugins = ["velta.testing"]
