"""Reads an SVG plot with the standard XML parser and prints what a reader
of the plot sees, one "key value..." line each: the axis tick labels and
positions, the curve's points turned back into data coordinates through the
tick labels, and the modes drawn.  Exits non-zero on malformed XML."""
import sys
import xml.etree.ElementTree as ET

NS = "{http://www.w3.org/2000/svg}"
root = ET.parse(sys.argv[1]).getroot()
assert root.tag == NS + "svg", root.tag
print("width", root.get("width"), "height", root.get("height"))
title = root.find(NS + "title")
print("title", (title.text or "").replace("\n", " "))


def axis(name, coord):
    g = root.find(".//" + NS + "g[@id='%s']" % name)
    if g is None:
        print(name, "missing")
        return None
    ticks = []
    for t in g.findall(NS + "g[@class='tick']"):
        text = t.find(NS + "text")
        line = t.find(NS + "line")
        # The tick's position is its line's; the text is offset from it.
        ticks.append((float(line.get(coord + "1")), float(text.text), line is not None))
    label = g.find(NS + "text[@class='label']")
    # A common power of ten stands in the label as 10<tspan class="exponent">e</tspan>.
    exp = label.find(NS + "tspan[@class='exponent']") if label is not None else None
    scale = 10.0 ** int(exp.text) if exp is not None else 1.0
    text = "".join(label.itertext()) if label is not None else ""
    if exp is not None:
        text = text.replace("10" + exp.text, "10^" + exp.text, 1)
    print(name, "ticks", len(ticks), "lines", sum(1 for t in ticks if t[2]), "label", text)
    if len(ticks) < 2:
        return None
    (p0, v0, _), (p1, v1, _) = ticks[0], ticks[-1]
    v0, v1 = v0 * scale, v1 * scale
    return lambda p: v0 + (p - p0) * (v1 - v0) / (p1 - p0)


to_x = axis("x-axis", "x")
to_y = axis("y-axis", "y")
curve = root.find(".//" + NS + "polyline[@id='curve']")
if curve is not None:
    pts = [tuple(map(float, p.split(","))) for p in curve.get("points").split()]
    print("curve points", len(pts))
    peak = min(pts, key=lambda q: q[1])  # highest on the page
    print("curve peak", to_x(peak[0]), to_y(peak[1]))
modes = root.findall(".//" + NS + "g[@id='modes']/" + NS + "g[@class='mode']")
print("modes", len(modes))
for m in modes:
    line = m.find(NS + "line")
    circle = m.find(NS + "circle")
    label = m.find(NS + "text")
    if circle is not None:
        bar = m.find(NS + "line[@class='errorbar']")
        half = abs(to_y(float(bar.get("y1"))) - to_y(float(bar.get("y2")))) / 2
        print("mode", to_x(float(circle.get("cx"))), to_y(float(circle.get("cy"))), half, circle.get("fill"))
    else:
        print("mode", to_x(float(line.get("x1"))), label.text if label is not None else "-")
bar = root.find(".//" + NS + "g[@id='colorbar']")
print("colorbar", "yes" if bar is not None else "no")
