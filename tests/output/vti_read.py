"""Reads VTK image-data files with VTK's own XML reader and prints, for
each file named, "file NAME" and then its dimensions, spacing and every
cell and field array, values in full precision, one line each:
"array NAME COMPONENTS TYPE v0 v1 ..."."""
import sys
import vtk

for name in sys.argv[1:]:
    print("file", name)
    r = vtk.vtkXMLImageDataReader()
    r.SetFileName(name)
    r.Update()
    if r.GetErrorCode() != 0:
        sys.exit("read error %d" % r.GetErrorCode())
    img = r.GetOutput()
    print("cells", *[d - 1 for d in img.GetDimensions()])
    print("spacing", *[repr(s) for s in img.GetSpacing()])
    cd = img.GetCellData()
    for a in range(cd.GetNumberOfArrays()):
        arr = cd.GetArray(a)
        n, c = arr.GetNumberOfTuples(), arr.GetNumberOfComponents()
        vals = [arr.GetComponent(t, k) for t in range(n) for k in range(c)]
        print("array", arr.GetName(), c, arr.GetDataTypeAsString(), *[repr(v) for v in vals])
    fd = img.GetFieldData()
    for a in range(fd.GetNumberOfArrays()):
        arr = fd.GetArray(a)
        print("field", arr.GetName(), repr(arr.GetComponent(0, 0)))
