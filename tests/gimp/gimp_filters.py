#!/usr/bin/env python3
"""The GIMP plug-in, driven headless: one gimp-console run calls every filter's procedure
through script-fu on a test picture, at 8-bit, 16-bit (linear and perceptual) and float
precision, and saves each result;
each must equal `qvfilter apply` of the same filter and inputs under the golden tolerances.
The same run checks that a selection limits the effect, that the recipe procedure equals
`qvfilter run`, and that bad arguments give a PDB error naming the key without killing the
plug-in. Results stay in the test's folder as artefacts.

Environment: QVFILTER, QV_GIMP_PLUGIN_DIR (the build tree's qvfilter-gimp/), QV_COMPARE
(compare_images), QV_TEST_TMP (a scratch folder in the build tree)."""
import json
import os
import shutil
import sys
import time

from gimp_support import SKIP, GimpSession, gimp_console, procedure_name, run, scheme_string

QVFILTER = os.environ["QVFILTER"]
PLUGIN_DIR = os.environ["QV_GIMP_PLUGIN_DIR"]
COMPARE = os.environ["QV_COMPARE"]
TMP = os.path.join(os.environ["QV_TEST_TMP"], "gimp")
failures = []


def fail(message):
    failures.append(message)
    print("FAIL:", message)


def number_text(v):
    return repr(float(v)) if isinstance(v, float) else str(v)


class Input:
    """One filter input as the plug-in derives its PDB parameters: kind and default."""

    def __init__(self, filter_info, key):
        a = filter_info["attributes"].get(key, {})
        self.key = key
        default = a.get("CIAttributeDefault", a.get("CIAttributeIdentity"))
        cls = a.get("CIAttributeClass")
        if cls is None:
            if isinstance(default, bool) or isinstance(default, (int, float)):
                cls = "NSNumber"
            elif isinstance(default, dict) and "vector" in default:
                cls = "CIVector"
            elif isinstance(default, dict) and "color" in default:
                cls = "CIColor"
            elif isinstance(default, str):
                cls = "NSString"
        t = a.get("CIAttributeType", "")
        self.default = default
        if cls == "NSNumber":
            self.kind = "bool" if t == "CIAttributeTypeBoolean" else (
                "int" if t in ("CIAttributeTypeInteger", "CIAttributeTypeCount") else "float")
        elif cls == "CIColor":
            self.kind = "color"
        elif cls == "CIVector":
            self.kind = "vector"
        elif cls == "CIImage":
            self.kind = "image"
        elif cls == "NSString" and key.endswith("TextureName"):
            self.kind = "texture"
        else:
            self.kind = "string"

    def args(self, value):
        """(script-fu argument text, `qvfilter apply -s` value text) for a value."""
        if value is None and self.kind in ("float", "int", "bool"):
            value = 0
        if self.kind == "float":
            return number_text(float(value)), number_text(float(value))
        if self.kind in ("int", "bool"):
            return str(int(value)), str(int(value))
        if self.kind == "color":
            c = value["color"] if isinstance(value, dict) else value
            c = [float(x) for x in (c.split() if isinstance(c, str) else c)]
            ints = [round(x * 255) for x in c[:3]]
            return "'(%d %d %d)" % tuple(ints), " ".join(number_text(i / 255) for i in ints) + " 1"
        if self.kind == "vector":
            v = value["vector"] if isinstance(value, dict) else value
            return "%d #(%s)" % (len(v), " ".join(number_text(float(x)) for x in v)), " ".join(
                number_text(float(x)) for x in v)
        s = "" if value is None else str(value)
        return scheme_string(s), s


def pdb_inputs(info):
    """The inputs a procedure takes, in order: all but the image and the texture identifiers
    that the filter resolves from the texture names itself."""
    keys = info["inputKeys"]
    calculated = {k[:-len("Name")] + "Identifier" for k in keys if k.startswith("input") and k.endswith("TextureName")}
    return [Input(info, k) for k in keys if k != "inputImage" and k not in calculated]


# The precisions every filter runs at: (name, conversion before the call, conversion back to the
# 8-bit PNG that is compared).
PRECISIONS = (
    ("u8", "", ""),
    ("u16-linear", "(gimp-image-convert-precision img PRECISION-U16-LINEAR)",
     "(gimp-image-convert-precision img PRECISION-U8-GAMMA)"),
    ("u16-gamma", "(gimp-image-convert-precision img PRECISION-U16-GAMMA)",
     "(gimp-image-convert-precision img PRECISION-U8-GAMMA)"),
    ("float", "(gimp-image-convert-precision img PRECISION-FLOAT-LINEAR)",
     "(gimp-image-convert-precision img PRECISION-U8-GAMMA)"),
)


def main():
    gimp = gimp_console()
    if not gimp:
        print("SKIP: gimp-console is not installed (scripts/bootstrap installs Debian's gimp)")
        return SKIP
    shutil.rmtree(TMP, ignore_errors=True)
    for d in ("ref", "out"):
        os.makedirs(os.path.join(TMP, d))

    picture = os.path.join(TMP, "in.png")
    mark = os.path.join(TMP, "mark.png")
    for path, w, h in ((picture, 160, 120), (mark, 48, 32)):
        r = run([QVFILTER, "sample", path, "--width", str(w), "--height", str(h)])
        if r.returncode:
            print(r.stdout, r.stderr)
            return 1

    names = [f["name"] for f in json.loads(run([QVFILTER, "list", "--json"]).stdout)
             if "CICategoryBuiltIn" not in f["categories"]]
    if not names:
        fail("the bundle registered no filters")
        return 1
    infos = {n: json.loads(run([QVFILTER, "info", n, "--json"]).stdout) for n in names}

    procedure = procedure_name

    # Every filter with its defaults, given explicitly; a few with other values too.
    overrides = {"QVFilterBlur": {"inputRadius": 4.0}, "QVFilterBorder": {"inputWidth": 9.0, "inputBorderType": 2,
                                                                         "inputColor": [0.2, 0.4, 0.6, 1]}}
    cases = []
    for name in names:
        inputs = pdb_inputs(infos[name])
        variants = [("defaults", {})]
        if name in overrides:
            variants.append(("set", overrides[name]))
        for variant, values in variants:
            sf, cli = [], []
            for inp in inputs:
                value = values.get(inp.key, inp.default)
                if inp.kind == "image":
                    value = mark
                a, c = inp.args(value)
                sf.append(a)
                cli += ["-s", "%s=%s" % (inp.key, c)]
            cases.append((name + "-" + variant, name, " ".join(sf), cli))

    # The test picture is loaded once and every call works on a copy of it. Batch commands share
    # no Scheme definitions, only GIMP's images, so each finds the picture by its file name.
    commands = ["(gimp-file-load RUN-NONINTERACTIVE %s \"in.png\")" % scheme_string(picture)]
    copy = ("(car (gimp-image-duplicate (let find ((ids (vector->list (cadr (gimp-image-list)))))"
            " (if (equal? (car (gimp-image-get-filename (car ids))) %s) (car ids) (find (cdr ids))))))"
            % scheme_string(picture))
    for case, name, sf_args, cli in cases:
        ref = os.path.join(TMP, "ref", case + ".png")
        r = run([QVFILTER, "apply", picture, ref, "-f", name] + cli)
        if r.returncode:
            fail("%s: qvfilter apply failed: %s" % (case, r.stderr.strip()))
        for precision, before, after in PRECISIONS:
            out = os.path.join(TMP, "out", "%s-%s.png" % (case, precision))
            commands.append(
                "(let* ((img " + copy + ")"
                " (drw (car (gimp-image-get-active-drawable img))))"
                " %s (%s RUN-NONINTERACTIVE img drw %s) %s"
                " (set! drw (car (gimp-image-get-active-drawable img)))"
                " (file-png-save2 RUN-NONINTERACTIVE img drw %s \"out.png\" 0 9 0 0 0 0 0 0 0)"
                " (gimp-image-delete img))" % (before, procedure(name), sf_args, after,
                                               scheme_string(out)))

    # A selection limits the effect: outside it nothing changes.
    sel_out = os.path.join(TMP, "out", "selection.png")
    commands.append(
        "(let* ((img " + copy + ")"
        " (drw (car (gimp-image-get-active-drawable img))))"
        " (gimp-image-select-rectangle img CHANNEL-OP-REPLACE 40 30 60 50)"
        " (plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw 1.5)"
        " (file-png-save2 RUN-NONINTERACTIVE img drw %s \"out.png\" 0 9 0 0 0 0 0 0 0)"
        " (gimp-image-delete img))" % scheme_string(sel_out))

    # A feathered selection: the effect fades out across the feather, and stops beyond it.
    feather_out = os.path.join(TMP, "out", "feathered.png")
    commands.append(
        "(let* ((img " + copy + ")"
        " (drw (car (gimp-image-get-active-drawable img))))"
        " (gimp-context-set-feather TRUE) (gimp-context-set-feather-radius 12 12)"
        " (gimp-image-select-rectangle img CHANNEL-OP-REPLACE 40 30 60 50)"
        " (plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw 1.5)"
        " (file-png-save2 RUN-NONINTERACTIVE img drw %s \"out.png\" 0 9 0 0 0 0 0 0 0)"
        " (gimp-image-delete img))" % scheme_string(feather_out))

    # The recipe procedure: the drawable stands in for the first step's inputImage.
    recipe = os.path.join(TMP, "recipe.json")
    with open(recipe, "w") as f:
        json.dump({"images": {"photo": {"file": "in.png"}},
                   "chain": [{"filter": "QVFilterColorControls", "inputs": {"inputImage": "@photo",
                                                                            "inputSaturation": 0.4}},
                             {"filter": "QVFilterBorder", "inputs": {"inputWidth": 6}}],
                   "output": {"file": "ref/recipe.png"}}, f)
    r = run([QVFILTER, "run", recipe])
    if r.returncode:
        fail("qvfilter run: " + r.stderr.strip())
    recipe_out = os.path.join(TMP, "out", "recipe.png")
    commands.append(
        "(let* ((img " + copy + ")"
        " (drw (car (gimp-image-get-active-drawable img))))"
        " (plug-in-qvfilter-recipe RUN-NONINTERACTIVE img drw %s)"
        " (file-png-save2 RUN-NONINTERACTIVE img drw %s \"out.png\" 0 9 0 0 0 0 0 0 0)"
        " (gimp-image-delete img))" % (scheme_string(recipe), scheme_string(recipe_out)))

    # Bad arguments: a PDB error naming the key (with the words that say what is wrong), and the
    # plug-in still answers afterwards.
    bad = [("inputRadius", "(plug-in-qvfilter-blur RUN-NONINTERACTIVE img drw -5.0 \"CIGaussianBlur\")",
            "inputRadius: -5 is out of range"),
           ("inputRadius", "(plug-in-qvfilter-blur RUN-NONINTERACTIVE img drw 1e16 \"CIGaussianBlur\")",
            "inputRadius expects a number from -1e15 to 1e15"),
           ("inputCenter", "(plug-in-qvfilter-bump-distortion RUN-NONINTERACTIVE img drw 3 #(0.5 0.5 0.5) 150.0 0.5)",
            "inputCenter expects 2 numbers")]
    for name in names:
        tex = [k for k in infos[name]["inputKeys"] if k.endswith("TextureName")]
        if tex:
            inputs = pdb_inputs(infos[name])
            args = " ".join(inp.args("no-such-texture" if inp.key == tex[0] else
                                     (mark if inp.kind == "image" else inp.default))[0] for inp in inputs)
            bad.append((tex[0], "(%s RUN-NONINTERACTIVE img drw %s)" % (procedure(name), args), tex[0]))
            # A texture of a catalogue that no loaded plug-in has.
            args = " ".join(inp.args("x-qvfilter-texture://org.example.elsewhere/paper" if inp.key == tex[0] else
                                     (mark if inp.kind == "image" else inp.default))[0] for inp in inputs)
            bad.append((tex[0], "(%s RUN-NONINTERACTIVE img drw %s)" % (procedure(name), args),
                        "no loaded plug-in's catalogue"))
            break
    else:
        print("NOTE: no filter of the bundle takes a texture name; the unknown-texture error is not exercised")
    for key, call, _ in bad:
        commands.append("(let* ((img " + copy + ")"
                        " (drw (car (gimp-image-get-active-drawable img)))) %s (gimp-image-delete img))" % call)
    alive = os.path.join(TMP, "out", "after-errors.png")
    commands.append(
        "(let* ((img " + copy + ")"
        " (drw (car (gimp-image-get-active-drawable img))))"
        " (plug-in-qvfilter-blur RUN-NONINTERACTIVE img drw 2.0 \"CIGaussianBlur\")"
        " (file-png-save2 RUN-NONINTERACTIVE img drw %s \"out.png\" 0 9 0 0 0 0 0 0 0))" % scheme_string(alive))

    start = time.time()
    with GimpSession(TMP, PLUGIN_DIR, batch=commands + ["(gimp-quit 0)"]) as session:
        session.wait(1700)
    log = session.log()
    print("gimp-console: %d batch commands in %.1f s" % (len(commands), time.time() - start))

    for case, name, _, _ in cases:
        for precision, _, _ in PRECISIONS:
            out = os.path.join(TMP, "out", "%s-%s.png" % (case, precision))
            if not os.path.exists(out):
                fail("%s at %s: GIMP saved no result" % (case, precision))
                continue
            c = run([COMPARE, os.path.join(TMP, "ref", case + ".png"), out])
            print("%-40s %-5s %s" % (case, precision, c.stdout.strip()))
            if c.returncode:
                fail("%s at %s: %s" % (case, precision, c.stdout.strip() + c.stderr.strip()))
    c = run([COMPARE, "--region", picture, sel_out, "40", "30", "60", "50"])
    print("selection:", c.stdout.strip())
    if c.returncode:
        fail("the selection did not limit the effect: " + c.stdout.strip() + c.stderr.strip())
    # Beyond the feather nothing changes; within it, more pixels change than the hard selection.
    c = run([COMPARE, "--region", picture, feather_out, "24", "14", "92", "82"])
    print("feathered selection:", c.stdout.strip())
    if c.returncode:
        fail("the feathered selection did not limit the effect: " + c.stdout.strip() + c.stderr.strip())
    hard = run([COMPARE, "--region", picture, sel_out, "40", "30", "60", "50"]).stdout.split()
    soft = c.stdout.split()
    if hard and soft and int(soft[0]) <= int(hard[0]):
        fail("the feather changed no pixels beyond the hard selection (%s against %s)" % (soft[0], hard[0]))
    c = run([COMPARE, os.path.join(TMP, "ref", "recipe.png"), recipe_out])
    print("recipe:", c.stdout.strip())
    if c.returncode:
        fail("recipe procedure: " + c.stdout.strip() + c.stderr.strip())
    for key, call, words in bad:
        if key not in log or words not in log or "failed" not in log:
            fail("no PDB error naming %s (\"%s\") for %s" % (key, words, call))
    if not os.path.exists(alive):
        fail("the plug-in did not answer after the bad calls")
    for word in ("crashed", "terminated", "Segmentation", "wire read"):
        if word in log:
            fail("the plug-in died (%s) -- see %s" % (word, session.log_path))
    if failures:
        print("\n%d failures; GIMP's log: %s" % (len(failures), session.log_path))
        return 1
    print("all %d cases match" % (len(PRECISIONS) * len(cases)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
