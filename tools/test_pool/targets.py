"""Difficulty and target arithmetic, done the way the miner does it.

The miner never keeps a target that the pool sends: it turns every
difficulty or target into a double and back into a 256-bit target with the
machine's float-to-integer conversions. The pool judges shares against the
same numbers, so both sides agree on what a share is, including the rounding
and the out-of-range cases.

Targets are Python ints (0 <= t < 2**256); a hash passes when its value is
at most the target.
"""

import math

MASK64 = (1 << 64) - 1

# Difficulty one: 0xFFFF * 2**208, exactly representable as a double.
DIFF1_TARGET = 0xFFFF << 208
DIFF1 = float(DIFF1_TARGET)

_TWO63 = 2.0 ** 63
_TWO64 = 2.0 ** 64
_TWO128 = 2.0 ** 128
_TWO192 = 2.0 ** 192
_INDEFINITE = 1 << 63  # what a failed double-to-integer conversion yields


def _truncate_signed(value: float) -> int:
    """Signed 64-bit truncation; out-of-range and NaN give -2**63."""
    if math.isnan(value) or value >= _TWO63 or value < -_TWO63:
        return -(1 << 63)
    return int(value)


def double_to_u64(value: float) -> int:
    """Unsigned conversion as compiled for x86-64: values at or above 2**63
    are shifted down by 2**63, converted signed, and get the top bit back."""
    if value >= _TWO63:
        return (_truncate_signed(value - _TWO63) & MASK64) ^ (1 << 63)
    return _truncate_signed(value) & MASK64


def difficulty_to_words(difficulty: float):
    """The four 64-bit words (least significant first) of a difficulty's target."""
    if difficulty == 0.0:
        difficulty = 1.0
    d = DIFF1 / difficulty
    w3 = double_to_u64(d / _TWO192)
    d = d - float(w3) * _TWO192
    w2 = double_to_u64(d / _TWO128)
    d = d - float(w2) * _TWO128
    w1 = double_to_u64(d / _TWO64)
    d = d - float(w1) * _TWO64
    w0 = double_to_u64(d)
    return (w0, w1, w2, w3)


def words_to_int(words) -> int:
    w0, w1, w2, w3 = words
    return w0 | w1 << 64 | w2 << 128 | w3 << 192


def difficulty_to_target(difficulty: float) -> int:
    return words_to_int(difficulty_to_words(difficulty))


def target_to_double(target: int) -> float:
    """The target as a double, summed from its words from the top down."""
    w = [(target >> (64 * i)) & MASK64 for i in range(4)]
    s = float(w[3]) * _TWO192
    s = float(w[2]) * _TWO128 + s
    s = float(w[1]) * _TWO64 + s
    return float(w[0]) + s


def target_to_difficulty(target: int) -> float:
    """The difficulty the miner stores for a target sent by mining.set_target."""
    s = target_to_double(target)
    if s == 0.0:
        return math.inf
    return DIFF1 / s


def effective_target_of_sent_target(target: int) -> int:
    """The target the miner ends up using after it is sent `target`."""
    return difficulty_to_target(target_to_difficulty(target))


def target_hex(target: int) -> str:
    """64 hex digits, most significant byte first, as mining.set_target carries it."""
    return f"{target:064x}"
