// The extension module gxstorage._gxstorage: files and streams over the
// library's engines, with element paths passed as tuples of str. The
// Python package (gxstorage/__init__.py) builds the public API on it.
//
// Names cross the boundary as UTF-16 with unpaired surrogates kept (as
// code points of their own in str), so that every name a file holds can be
// read, listed and written back unchanged. The interpreter's lock is
// released around calls that may take long: transfers of 64 KiB or more,
// and calls that walk or change the file.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <optional>

#include "python/src/gxpyFile.h"

namespace py = pybind11;

namespace {

PyObject* corruptFileError = nullptr;  // gxstorage.CorruptFileError

std::u16string toUtf16(py::handle text) {
  PyObject* str = text.ptr();
  if (!PyUnicode_Check(str) || PyUnicode_READY(str) != 0)
    throw py::type_error("element names must be str");
  const int kind = PyUnicode_KIND(str);
  const void* data = PyUnicode_DATA(str);
  const Py_ssize_t length = PyUnicode_GET_LENGTH(str);
  std::u16string out;
  out.reserve(static_cast<size_t>(length));
  for (Py_ssize_t i = 0; i < length; ++i) {
    const Py_UCS4 c = PyUnicode_READ(kind, data, i);
    if (c > 0xFFFF) {
      out += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
      out += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);  // lone surrogates stay as they are
    }
  }
  return out;
}

py::str fromUtf16(const std::u16string& text) {
  std::vector<Py_UCS4> points;
  points.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() &&
        text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      points.push_back(0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00));
    } else {
      points.push_back(c);
    }
  }
  PyObject* out =
      PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, points.data(),
                                static_cast<Py_ssize_t>(points.size()));
  if (out == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(out);
}

// The names of an element path given as a list or tuple of str.
gxpyNames toNames(py::handle names) {
  if (!PyList_Check(names.ptr()) && !PyTuple_Check(names.ptr()))
    throw py::type_error("an element path is a list or tuple of str");
  py::sequence items = py::reinterpret_borrow<py::sequence>(names);
  gxpyNames out;
  out.reserve(items.size());
  for (py::handle name : items) out.push_back(toUtf16(name));
  return out;
}

// A buffer of the caller's, held while the engines work on it without the
// interpreter's lock.
class Buffer {
 public:
  Buffer(py::handle object, bool writable) {
    if (PyObject_GetBuffer(object.ptr(), &view_,
                           writable ? PyBUF_WRITABLE : PyBUF_SIMPLE) != 0)
      throw py::error_already_set();
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() { PyBuffer_Release(&view_); }
  void* data() const { return view_.buf; }
  size_t size() const { return static_cast<size_t>(view_.len); }

 private:
  Py_buffer view_;
};

const char* describe(HRESULT hr) {
  switch (hr) {
    case STG_E_FILENOTFOUND:
    case STG_E_PATHNOTFOUND:
      return "no such file or element";
    case STG_E_ACCESSDENIED:
      return "access denied";
    case STG_E_SHAREVIOLATION:
    case STG_E_LOCKVIOLATION:
      return "in use by another opener";
    case STG_E_FILEALREADYEXISTS:
      return "already exists";
    case STG_E_INVALIDHEADER:
      return "not a compound file";
    case STG_E_DOCFILECORRUPT:
      return "corrupt compound file";
    case STG_E_INVALIDNAME:
      return "invalid element name (1 to 31 UTF-16 units, none of / \\ : !)";
    case STG_E_MEDIUMFULL:
      return "disk full";
    case STG_E_DOCFILETOOLARGE:
      return "too large for this file's version";
    case STG_E_REVERTED:
      return "the element was removed or the transaction reverted";
    case STG_E_READFAULT:
      return "read error";
    case STG_E_WRITEFAULT:
      return "write error";
    default:
      return "failed";
  }
}

// Raises the Python exception for `failure`, with the result code as an
// unsigned 32-bit `hresult` attribute.
void raise(const gxpyFailure& failure) {
  const HRESULT hr = failure.hr;
  PyObject* type = PyExc_OSError;
  int error = EIO;
  std::string message = describe(hr);
  switch (failure.kind) {
    case gxpyFailure::kClosed:
      type = PyExc_ValueError;
      message = "I/O operation on closed file";
      break;
    case gxpyFailure::kIsStorage:
      type = PyExc_IsADirectoryError, error = EISDIR;
      message = "is a storage, not a stream";
      break;
    case gxpyFailure::kNotStorage:
      type = PyExc_NotADirectoryError, error = ENOTDIR;
      message = "is a stream, not a storage";
      break;
    case gxpyFailure::kCorrupt:
      type = corruptFileError;
      message = "not a compound file";
      break;
    case gxpyFailure::kByCode:
      switch (hr) {
        case STG_E_FILENOTFOUND:
        case STG_E_PATHNOTFOUND:
          type = PyExc_FileNotFoundError, error = ENOENT;
          break;
        case STG_E_ACCESSDENIED:
        case STG_E_SHAREVIOLATION:
        case STG_E_LOCKVIOLATION:
          type = PyExc_PermissionError, error = EACCES;
          break;
        case STG_E_FILEALREADYEXISTS:
          type = PyExc_FileExistsError, error = EEXIST;
          break;
        case STG_E_INVALIDHEADER:
        case STG_E_DOCFILECORRUPT:
          type = corruptFileError;
          break;
        case STG_E_INVALIDNAME:
        case STG_E_INVALIDPARAMETER:
        case E_INVALIDARG:
          type = PyExc_ValueError;
          break;
        case E_OUTOFMEMORY:
        case STG_E_INSUFFICIENTMEMORY:
          type = PyExc_MemoryError;
          break;
        case STG_E_MEDIUMFULL:
          error = ENOSPC;
          break;
        case STG_E_DOCFILETOOLARGE:
          error = EFBIG;
          break;
        default:
          break;
      }
      break;
  }
  char code[24];
  std::snprintf(code, sizeof code, " (0x%08X)", static_cast<unsigned>(hr));
  message += code;
  py::object args;
  if (PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(type),
                       reinterpret_cast<PyTypeObject*>(PyExc_OSError))) {
    args = py::make_tuple(error, message, failure.what);
  } else {
    args = py::make_tuple(message + ": '" + failure.what + "'");
  }
  PyObject* exc = PyObject_CallObject(type, args.ptr());
  if (exc == nullptr) return;  // that exception stands instead
  py::object hresult = py::int_(static_cast<uint32_t>(hr));
  PyObject_SetAttrString(exc, "hresult", hresult.ptr());
  PyErr_SetObject(type, exc);
  Py_DECREF(exc);
}

// Transfers of at least this many bytes run without the interpreter's
// lock; shorter ones keep it (handing it over costs more than they take).
constexpr size_t kLongTransfer = 64 * 1024;

// Releases the interpreter's lock for a transfer of `bytes`, when long.
class Unlock {
 public:
  explicit Unlock(size_t bytes) {
    if (bytes >= kLongTransfer) release_.emplace();
  }

 private:
  std::optional<py::gil_scoped_release> release_;
};

// The bytes of a new bytes object of `size`, filled by `fill`; shortened
// when `fill` delivers less.
template <typename Fill>
py::bytes newBytes(size_t size, Fill fill) {
  PyObject* out =
      PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(size));
  if (out == nullptr) throw py::error_already_set();
  py::object owner = py::reinterpret_steal<py::object>(out);
  size_t done;
  {
    Unlock unlocked(size);
    done = fill(PyBytes_AS_STRING(out), size);
  }
  if (done != size &&
      _PyBytes_Resize(&out, static_cast<Py_ssize_t>(done)) != 0) {
    owner.release();
    throw py::error_already_set();
  }
  owner.release();
  return py::reinterpret_steal<py::bytes>(out);
}

py::bytes readStream(gxpyStream& stream, uint64_t offset, int64_t count) {
  const uint64_t size = stream.size();
  uint64_t left = offset < size ? size - offset : 0;
  if (count >= 0) left = std::min<uint64_t>(left, static_cast<uint64_t>(count));
  if (left > static_cast<uint64_t>(PY_SSIZE_T_MAX)) throw std::bad_alloc();
  return newBytes(static_cast<size_t>(left), [&](char* data, size_t n) {
    return stream.readAt(offset, data, n);
  });
}

py::tuple statTuple(const gxpyStat& s) {
  return py::make_tuple(
      fromUtf16(s.name), s.type, s.size,
      py::bytes(reinterpret_cast<const char*>(s.clsid), sizeof s.clsid),
      s.stateBits, s.created, s.modified);
}

}  // namespace

PYBIND11_MODULE(_gxstorage, m) {
  m.doc() = "Compound files through the gxStorage engines (internal).";

  corruptFileError = PyErr_NewExceptionWithDoc(
      "gxstorage.CorruptFileError",
      "The file is not a compound file, or it is damaged.", PyExc_ValueError,
      nullptr);
  m.add_object("CorruptFileError", py::handle(corruptFileError));
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const gxpyFailure& failure) {
      raise(failure);
    }
  });

  py::class_<gxpyStream, std::shared_ptr<gxpyStream>>(m, "Stream")
      .def("size", &gxpyStream::size)
      .def("read", &readStream, py::arg("offset"), py::arg("count") = -1)
      .def("readinto",
           [](gxpyStream& self, uint64_t offset, py::handle target) {
             Buffer buffer(target, true);
             Unlock unlocked(buffer.size());
             return self.readAt(offset, buffer.data(), buffer.size());
           })
      .def("write",
           [](gxpyStream& self, uint64_t offset, py::handle source) {
             Buffer buffer(source, false);
             Unlock unlocked(buffer.size());
             self.writeAt(offset, buffer.data(), buffer.size());
             return buffer.size();
           })
      .def("truncate", &gxpyStream::setSize,
           py::call_guard<py::gil_scoped_release>())
      .def("close", &gxpyStream::close,
           py::call_guard<py::gil_scoped_release>());

  py::class_<gxpyFile, std::shared_ptr<gxpyFile>>(m, "File")
      .def("children",
           [](gxpyFile& self, py::handle names) {
             gxpyNames n = toNames(names);
             std::vector<gxpyChild> found;
             {
               py::gil_scoped_release unlocked;
               found = self.children(n);
             }
             py::list out;
             for (const gxpyChild& c : found)
               out.append(py::make_tuple(fromUtf16(c.name), c.type, c.size));
             return out;
           })
      .def("lookup",
           [](gxpyFile& self, py::handle names) -> py::object {
             gxpyNames n = toNames(names);
             gxpyChild found;
             bool exists;
             {
               py::gil_scoped_release unlocked;
               exists = self.lookup(n, found);
             }
             if (!exists) return py::none();
             return py::make_tuple(found.type, found.size);
           })
      .def("stat",
           [](gxpyFile& self, py::handle names) {
             gxpyNames n = toNames(names);
             gxpyStat found;
             {
               py::gil_scoped_release unlocked;
               found = self.stat(n);
             }
             return statTuple(found);
           })
      .def("open_stream",
           [](gxpyFile& self, py::handle names, bool create) {
             gxpyNames n = toNames(names);
             py::gil_scoped_release unlocked;
             return self.openStream(n, create);
           })
      .def("read",
           [](gxpyFile& self, py::handle names) {
             gxpyNames n = toNames(names);
             std::shared_ptr<gxpyStream> stream = self.openStream(n, false);
             py::bytes out = readStream(*stream, 0, -1);
             stream->close();
             return out;
           })
      .def("write",
           [](gxpyFile& self, py::handle names, py::handle data) {
             gxpyNames n = toNames(names);
             Buffer buffer(data, false);
             Unlock unlocked(buffer.size());
             self.write(n, buffer.data(), buffer.size());
           })
      .def("remove",
           [](gxpyFile& self, py::handle names) {
             gxpyNames n = toNames(names);
             py::gil_scoped_release unlocked;
             self.remove(n);
           })
      .def("rename",
           [](gxpyFile& self, py::handle names, py::handle to) {
             gxpyNames n = toNames(names);
             std::u16string name = toUtf16(to);
             py::gil_scoped_release unlocked;
             self.rename(n, name);
           })
      .def("makedirs",
           [](gxpyFile& self, py::handle names) {
             gxpyNames n = toNames(names);
             py::gil_scoped_release unlocked;
             return self.makeStorages(n);
           })
      .def("commit", &gxpyFile::commit,
           py::call_guard<py::gil_scoped_release>())
      .def("revert", &gxpyFile::revert,
           py::call_guard<py::gil_scoped_release>())
      .def("close", &gxpyFile::close, py::arg("commit"),
           py::call_guard<py::gil_scoped_release>());

  m.def("open_portable", [](py::handle path) {
    std::u16string p = toUtf16(path);
    py::gil_scoped_release unlocked;
    return gxpyOpenPortable(p);
  });
  m.def("open_platform", [](py::handle path, const std::string& mode) {
    std::u16string p = toUtf16(path);
    gxpyPlatformMode how = mode == "r"    ? gxpyPlatformMode::kRead
                           : mode == "r+" ? gxpyPlatformMode::kEdit
                                          : gxpyPlatformMode::kCreate;
    py::gil_scoped_release unlocked;
    return gxpyOpenPlatform(p, how);
  });
}
