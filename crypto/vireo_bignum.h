// SPDX-License-Identifier: Apache-2.0
// Unsigned big numbers of up to 2048 bits, for raising a signature to the public
// exponent modulo the public modulus. A number is one allocated array of 16-bit words:
// word 0 is the number of digits in use, words 1..length the digits, base 65536, least
// significant first. Numbers are immutable once built; each is released (and wiped)
// with bignum_free.
#pragma once

#include <cstdint>

using bignum = uint16_t;

// Value 0 with length = capacity digits; ends the process when memory runs out.
bignum *bignum_new(uint16_t capacity);
bignum *bignum_from_u32(uint32_t value);
// Bytes read big-endian (the first byte is the most significant), normalised.
bignum *bignum_from_bytes(const uint8_t *bytes, uint32_t n);
void bignum_free(bignum *num);
uint32_t bignum_bit_length(const bignum *num);
// Byte i counted from the least significant; 0 past the value's digits.
uint8_t bignum_get_byte(const bignum *num, int32_t i);
// base^exponent mod modulus, normalised; none when the base has more digits than the
// modulus or the modulus is zero.
bignum *bignum_mod_exp(const bignum *base, const bignum *exponent, const bignum *modulus);

// Digit arrays with the most significant digit first (internal, exposed for tests).
// product[0..2L) = x[0..L) * y[0..L)
void bignum_mul(const uint16_t *x, const uint16_t *y, uint32_t len, uint16_t *product);
// u[0..m) mod v[0..L), v's top bit set, m >= L: remainder in u's low L digits, the
// higher digits zero (Knuth, Algorithm D).
void bignum_rem(uint16_t *u, uint32_t m, const uint16_t *v, uint32_t len);
