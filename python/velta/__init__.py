# SPDX-License-Identifier: MIT
from velta import _velta

_velta._check_interpreter()
from velta._velta import *
