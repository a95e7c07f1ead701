#!/usr/bin/env python3
"""Writes gost_r3411_94_mix.inc: the mixing of the step function as closed-form
expressions on 32-bit words.

The mixing map psi shifts the 256-bit value right by one 16-bit word and puts
y1 ^ y2 ^ y3 ^ y4 ^ y13 ^ y16 on top (y1 = lowest word). Any power of psi, and any
xor of such powers, maps each output 16-bit word to an xor of input 16-bit words.
For an output 32-bit word every input 32-bit word w then contributes through some of
four forms: w itself, w rotated by 16 bits, the low half of w, or the high half of w
moved down, so that

    out = A ^ rotl16(B) ^ (C & 0xffff) ^ (D >> 16)

with A, B, C, D xors of input words. Sums shared between the output words are
computed once (greedy pairing of the most frequent operand pairs).

Run: python3 gost_r3411_94_mix_gen.py > gost_r3411_94_mix.inc
"""
import collections
import itertools


def xor_lane(a, b):
    r = dict(a)
    for k, v in b.items():
        r[k] = r.get(k, 0) ^ v
    return {k: v for k, v in r.items() if v}


def vector(name):
    # lane i of `name` as {name: bit i}
    return [{name: 1 << i} for i in range(16)]


def psi(v):
    fb = v[0]
    for i in (1, 2, 3, 12, 15):
        fb = xor_lane(fb, v[i])
    return v[1:] + [fb]


def psi_n(n, v):
    for _ in range(n):
        v = psi(v)
    return v


def xor_vec(a, b):
    return [xor_lane(x, y) for x, y in zip(a, b)]


def decompose(lanes):
    """Per output word the operand sets (A, B, C, D) of the form above."""
    words = []
    for j in range(8):
        a, b, c, d = set(), set(), set(), set()
        names = sorted(set(k for t in (0, 1) for k in lanes[2 * j + t]))
        for name in names:
            lo = lanes[2 * j].get(name, 0)
            hi = lanes[2 * j + 1].get(name, 0)
            for i in range(8):
                ll = lo >> (2 * i) & 1      # input low half  -> output low half
                hl = lo >> (2 * i + 1) & 1  # input high half -> output low half
                lh = hi >> (2 * i) & 1      # input low half  -> output high half
                hh = hi >> (2 * i + 1) & 1  # input high half -> output high half
                x = (name, i)
                # identity part: low and high halves in place
                if ll and hh:
                    a ^= {x}
                elif ll:
                    c ^= {x}
                elif hh:            # high half = w ^ (w & 0xffff)
                    a ^= {x}
                    c ^= {x}
                # crossed part
                if lh and hl:
                    b ^= {x}
                elif hl:
                    d ^= {x}
                elif lh:            # w << 16 = rotl16(w) ^ (w >> 16)
                    b ^= {x}
                    d ^= {x}
        words.append((a, b, c, d))
    return words


def share(sets, prefix):
    """Greedy common-subexpression pairing; returns the temporaries and the sets."""
    sets = [set(s) for s in sets]
    temps = []
    key = lambda x: (str(x[0]), x[1])
    while True:
        count = collections.Counter()
        for s in sets:
            for p in itertools.combinations(sorted(s, key=key), 2):
                count[p] += 1
        if not count:
            break
        # the most frequent pair; ties go to the first pair in operand order,
        # so that the output is stable
        best_n = max(count.values())
        pair = min((p for p, c in count.items() if c == best_n),
                   key=lambda p: (key(p[0]), key(p[1])))
        if best_n < 2:
            break
        t = (prefix, len(temps))
        temps.append(pair)
        for s in sets:
            if pair[0] in s and pair[1] in s:
                s -= set(pair)
                s.add(t)
    return temps, sets


TEMP_PREFIXES = ('t', 'u', 'v')  # names of the shared sums; inputs are arrays


def name_of(x):
    v, i = x
    return f'{v}{i}' if v in TEMP_PREFIXES else f'{v}[{i}]'


def xor_expr(s):
    key = lambda x: (str(x[0]), x[1])
    return ' ^ '.join(name_of(x) for x in sorted(s, key=key))


def emit_stage(lanes, prefix, out, indent='  ', assign='='):
    words = decompose(lanes)
    flat = [s for w in words for s in w]
    temps, sets = share(flat, prefix)
    lines = []
    for k, (p, q) in enumerate(temps):
        lines.append(f'{indent}const uint32_t {prefix}{k} = {name_of(p)} ^ {name_of(q)};')
    for j in range(8):
        a, b, c, d = sets[4 * j:4 * j + 4]
        terms = []
        if a:
            terms.append(xor_expr(a) if len(a) == 1 else f'({xor_expr(a)})')
        if b:
            terms.append(f'rotl16({xor_expr(b)})')
        if c:
            terms.append(f'(({xor_expr(c)}) & 0xffffu)' if len(c) > 1 else f'({xor_expr(c)} & 0xffffu)')
        if d:
            terms.append(f'(({xor_expr(d)}) >> 16)' if len(d) > 1 else f'({xor_expr(d)} >> 16)')
        if not terms:
            terms = ['0']
        lines.append(f'{indent}{out}[{j}] {assign} {" ^ ".join(terms)};')
    return lines


def main():
    h, m, s, x, z = (vector(n) for n in ('h', 'm', 's', 'x', 'z'))
    print('// Generated by gost_r3411_94_mix_gen.py; do not edit.')
    print()
    print('// out = psi^61(h ^ psi(m)): the part of the new hash value that does not')
    print('// depend on the encryption, so it can be computed alongside it.')
    print('static FSIC_GOST_INLINE void mix_hm(const uint32_t h[8], const uint32_t m[8],')
    print('                                    uint32_t out[8]) noexcept {')
    print('  uint32_t z[8];')
    for l in emit_stage(xor_vec(h, psi(m)), 'u', 'z'):
        print(l)
    for l in emit_stage(psi_n(61, z), 't', 'out'):
        print(l)
    print('}')
    print()
    print('// out ^= psi^74(s): the contribution of the encrypted value.')
    print('static FSIC_GOST_INLINE void mix_s(const uint32_t s[8], uint32_t out[8]) noexcept {')
    for l in emit_stage(psi_n(74, s), 'v', 'out', assign='^='):
        print(l)
    print('}')


if __name__ == '__main__':
    main()
