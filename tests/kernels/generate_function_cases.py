#!/usr/bin/env python3
"""Writes ok/fn_*.cikernel and their .expected files: one kernel per group of built-in
functions, evaluated over a 4x1 row whose pixels give different inputs. The expected pixels
come from Python's math module, an implementation independent of the kernel evaluator.

Inside each kernel: t = destCoord().x (0.5, 1.5, 2.5, 3.5) and u = t * 0.2 - 0.4
(-0.3, -0.1, 0.1, 0.3). Re-run after changing a case: python3 generate_function_cases.py
"""
import math
import os

HERE = os.path.dirname(os.path.abspath(__file__))
TS = [0.5, 1.5, 2.5, 3.5]


def f32(x):
    import struct
    return struct.unpack('f', struct.pack('f', x))[0]


def U(t):
    return f32(f32(t * f32(0.2)) - f32(0.4))


def glmod(x, y):
    return x - y * math.floor(x / y)


def sign(x):
    return 1.0 if x > 0 else (-1.0 if x < 0 else 0.0)


def clamp(x, a, b):
    return min(max(x, a), b)


def mix(x, y, a):
    return x * (1 - a) + y * a


def step(e, x):
    return 0.0 if x < e else 1.0


def smoothstep(e0, e1, x):
    t = clamp((x - e0) / (e1 - e0), 0.0, 1.0)
    return t * t * (3 - 2 * t)


def length(v):
    return math.sqrt(sum(c * c for c in v))


def dot(a, b):
    return sum(x * y for x, y in zip(a, b))


def cross(a, b):
    return [a[1] * b[2] - b[1] * a[2], a[2] * b[0] - b[2] * a[0], a[0] * b[1] - b[0] * a[1]]


def normalize(v):
    n = length(v)
    return [c / n for c in v]


def reflect(i, n):
    d = dot(n, i)
    return [a - 2 * d * b for a, b in zip(i, n)]


def b(x):
    return 1.0 if x else 0.0


CASES = {
    'fn_trig_basic': ('vec4(sin(u), cos(u), tan(u), asin(u))',
                      lambda t, u: [math.sin(u), math.cos(u), math.tan(u), math.asin(u)]),
    'fn_trig_inverse': ('vec4(acos(u), atan(u), atan(u, 0.5), radians(t * 30.0))',
                        lambda t, u: [math.acos(u), math.atan(u), math.atan2(u, 0.5), math.radians(t * 30)]),
    'fn_trig_fast': ('vec4(degrees(u), sin_(u * 10.0), cos_(u * 10.0), tan_(u))',
                     lambda t, u: [math.degrees(u), math.sin(u * 10), math.cos(u * 10), math.tan(u)]),
    'fn_sincos': ('vec4(sincos(u * 5.0), cossin(u * 5.0))',
                  lambda t, u: [math.sin(u * 5), math.cos(u * 5), math.cos(u * 5), math.sin(u * 5)]),
    'fn_sincos_fast': ('vec4(sincos_(u * 9.0), cossin_(u * 9.0))',
                       lambda t, u: [math.sin(u * 9), math.cos(u * 9), math.cos(u * 9), math.sin(u * 9)]),
    'fn_exponential': ('vec4(pow(t, 1.5), exp(u), log(t), exp2(u * 3.0))',
                       lambda t, u: [t ** 1.5, math.exp(u), math.log(t), 2 ** (u * 3)]),
    'fn_exponential_more': ('vec4(log2(t), sqrt(t), inversesqrt(t), abs(u))',
                            lambda t, u: [math.log2(t), math.sqrt(t), 1 / math.sqrt(t), abs(u)]),
    'fn_rounding': ('vec4(sign(u), floor(t * 0.7), ceil(t * 0.7), fract(t * 0.7))',
                    lambda t, u: [sign(u), math.floor(t * 0.7), math.ceil(t * 0.7), t * 0.7 - math.floor(t * 0.7)]),
    'fn_mod_min_max': ('vec4(mod(t, 1.5), mod(vec2(t, -t), 1.5).y, min(u, 0.0), max(vec2(u), vec2(0.1, 0.0)).x)',
                       lambda t, u: [glmod(t, 1.5), glmod(-t, 1.5), min(u, 0.0), max(u, 0.1)]),
    'fn_clamp_mix_step': ('vec4(clamp(u, -0.2, 0.2), mix(1.0, 3.0, t / 4.0), step(1.0, t), clamp(vec2(u, t), vec2(0.0), vec2(1.0)).y)',
                          lambda t, u: [clamp(u, -0.2, 0.2), mix(1, 3, t / 4), step(1, t), clamp(t, 0, 1)]),
    'fn_smoothstep_compare': ('vec4(smoothstep(0.0, 4.0, t), smoothstep(vec2(0.0), vec2(2.0, 8.0), vec2(t)).y, compare(u, 1.0, 2.0), step(vec2(2.0), vec2(t)).x)',
                              lambda t, u: [smoothstep(0, 4, t), smoothstep(0, 8, t), 1.0 if u < 0 else 2.0, step(2, t)]),
    'fn_mix_vector': ('vec4(mix(vec2(0.0, 1.0), vec2(t, -t), vec2(0.25, u)), mix(vec2(1.0), vec2(2.0, 4.0), u))',
                      lambda t, u: [mix(0, t, 0.25), mix(1, -t, u), mix(1, 2, u), mix(1, 4, u)]),
    'fn_geometric': ('vec4(length(vec2(u, t)), distance(vec3(u, t, 1.0), vec3(0.5)), dot(vec3(u, t, 1.0), vec3(1.0, 2.0, 3.0)), normalize(vec2(u, t)).x)',
                     lambda t, u: [length([u, t]), length([u - .5, t - .5, .5]), dot([u, t, 1], [1, 2, 3]), normalize([u, t])[0]]),
    'fn_cross': ('vec4(cross(vec3(u, t, 1.0), vec3(1.0, 2.0, 3.0)), length(u))',
                 lambda t, u: cross([u, t, 1], [1, 2, 3]) + [abs(u)]),
    'fn_faceforward_reflect': ('vec4(faceforward(vec2(1.0, 2.0), vec2(u, 1.0), vec2(1.0, 0.0)), reflect(vec2(u, t), normalize(vec2(1.0, 1.0))))',
                               lambda t, u: ([1, 2] if dot([1, 0], [u, 1]) < 0 else [-1, -2]) + reflect([u, t], normalize([1, 1]))),
    'fn_relational': ('vec4(vec2(lessThan(vec2(u, t), vec2(0.0, 2.0))), vec2(greaterThanEqual(vec2(u, t), vec2(0.1, 1.5))))',
                      lambda t, u: [b(u < 0), b(t < 2), b(u >= f32(0.1)), b(t >= 1.5)]),
    'fn_relational_more': ('vec4(vec2(lessThanEqual(vec2(t), vec2(1.5, 2.5))), vec2(greaterThan(vec2(u), vec2(0.0, -0.2))))',
                           lambda t, u: [b(t <= 1.5), b(t <= 2.5), b(u > 0), b(u > -0.2)]),
    'fn_equal_any_all': ('vec4(float(any(equal(vec3(t), vec3(0.5, 2.5, 9.0)))), float(all(notEqual(vec2(t), vec2(1.5, 7.0)))), vec2(not(bvec2(u > 0.0, t > 3.0))))',
                         lambda t, u: [b(t in (0.5, 2.5)), b(t != 1.5), b(not u > 0), b(not t > 3)]),
}

KERNEL = """// Generated by generate_function_cases.py: built-in functions over a row of four pixels.
kernel vec4 functions(float unused)
{{
    float t = destCoord().x;
    float u = t * 0.2 - 0.4;
    return {expr};
}}
"""

for name, (expr, fn) in sorted(CASES.items()):
    with open(os.path.join(HERE, 'ok', name + '.cikernel'), 'w') as f:
        f.write(KERNEL.format(expr=expr))
    rows = []
    for t in TS:
        rows.append('  ' + ' '.join(repr(float(f32(v))) for v in fn(t, U(t))))
    with open(os.path.join(HERE, 'ok', name + '.expected'), 'w') as f:
        f.write('# Generated by generate_function_cases.py from Python\'s math module.\n')
        f.write('signature kernel vec4 functions(float unused)\n')
        f.write('float 0\nrender 0 0 4 1\ntolerance 2e-5\nexpect\n')
        f.write('\n'.join(rows) + '\n')
