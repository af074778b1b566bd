// The Python module spf_sharedmemory: the library's handle as a Python object that lends its
// segment's bytes through the buffer protocol, so that memoryview and NumPy read and write the
// shared memory in place. It wraps the public API and adds no behaviour of its own beyond what
// Python needs: a size for the buffer, an explicit close(), and a sink for the records.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <boost/core/null_deleter.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/make_shared.hpp>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace py = pybind11;
namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using Backend = SharedMemory::ImplementationSpecifications;

namespace {

// One segment as a Python object holds it. The handle does not tell its size, so the object
// keeps the size it was opened with: the mapping is at least that large (a POSIX object may be
// larger, a System V segment refuses a larger request), and the buffer lends exactly that much.
struct Segment {
    Segment(SharedMemory handle, std::string name, unsigned long size, Backend backend)
        : held(std::move(handle)), name(std::move(name)), size(size), backend(backend) {}

    SharedMemory& handle() {
        if (!held) throw py::value_error("the segment is closed");
        return *held;
    }

    // Tears down as the handle's destructor does. A buffer still lent out would point into
    // memory that the unmapping takes away, so it refuses, as mmap.close() does.
    void close() {
        if (exports > 0) {
            throw py::buffer_error("cannot close the segment: " + std::to_string(exports) +
                                   " buffer(s) of it still exported");
        }
        held.reset();
    }

    std::optional<SharedMemory> held;  // empty once closed
    std::string name;                  // the system's name, without the leading "/"
    unsigned long size;
    Backend backend;
    Py_ssize_t exports = 0;  // buffers lent out and not yet released; changed under the GIL
};

// A NUL would end the name early for the system, which would open another segment than asked.
const std::string& checked(const std::string& text) {
    if (text.find('\0') != std::string::npos) throw py::value_error("embedded null byte");
    return text;
}

// The opening runs without the GIL: it makes system calls and may wait on the group database.
// Backend(2) is a valid Python object; the library would answer it with an empty handle, which
// every later call refuses, so it is refused here.
template <typename Open>
std::unique_ptr<Segment> open(std::string name, unsigned long size, Backend backend, Open opening) {
    if (backend != SharedMemory::Posix && backend != SharedMemory::SysV) {
        throw py::value_error("unknown backend " + std::to_string(static_cast<int>(backend)));
    }
    std::optional<SharedMemory> handle;
    {
        py::gil_scoped_release unlocked;
        handle.emplace(opening());
    }
    return std::make_unique<Segment>(std::move(*handle), std::move(name), size, backend);
}

using Factory = SharedMemory (*)(const std::string&, unsigned long, const std::string&, Backend);

// One of the static functions that derive the name, as a Python static method.
auto derivedBy(Factory factory) {
    return [factory](const std::string& name, unsigned long size, const std::string& trustee,
                     Backend backend) {
        checked(trustee);
        return open(sm::deriveSegmentName(name, trustee), size, backend,
                    [&] { return factory(name, size, trustee, backend); });
    };
}

// The buffer protocol by hand rather than through pybind11's def_buffer: close() must know how
// many buffers are out, and only the release slot tells when one comes back. Both slots run under
// the GIL; a consumer's buffer holds a reference to the segment, so it is alive in both.
Segment* segmentOf(PyObject* object) {
    try {
        return py::handle(object).cast<Segment*>();
    } catch (...) {
        return nullptr;
    }
}

int exportBuffer(PyObject* object, Py_buffer* view, int flags) {
    Segment* segment = segmentOf(object);
    const char* refusal = segment == nullptr               ? "not a segment"
                          : !segment->held                 ? "the segment is closed"
                          : !segment->held->isAttached()   ? "the segment is not attached"
                          : segment->size > PY_SSIZE_T_MAX ? "the segment is too large"
                                                           : nullptr;
    if (refusal != nullptr) {
        view->obj = nullptr;
        PyErr_SetString(PyExc_BufferError, refusal);
        return -1;
    }
    if (PyBuffer_FillInfo(view, object, segment->held->getPointer(),
                          static_cast<Py_ssize_t>(segment->size), 0, flags) != 0) {
        return -1;
    }
    ++segment->exports;
    return 0;
}

void releaseBuffer(PyObject* object, Py_buffer*) {
    if (Segment* segment = segmentOf(object)) --segment->exports;
}

std::string describe(Segment& segment) {
    const char* backEnd = segment.backend == SharedMemory::SysV ? "SYSV" : "POSIX";
    std::string state = !segment.held                 ? "closed"
                        : !segment.held->isAttached() ? "not attached"
                        : segment.held->isCreator()   ? "attached, creator"
                                                      : "attached, finder";
    return "<spf_sharedmemory.SharedMemory /" + segment.name + " " + backEnd + " " +
           std::to_string(segment.size) + " bytes, " + state + ">";
}

// Without a sink of its own, Boost.Log writes the records to stdout through its default sink.
void logToStderr() {
    static std::once_flag added;
    std::call_once(added, [] {
        namespace logging = boost::log;
        auto backend = boost::make_shared<logging::sinks::text_ostream_backend>();
        backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, boost::null_deleter()));
        backend->auto_flush(true);
        auto sink = boost::make_shared<
            logging::sinks::synchronous_sink<logging::sinks::text_ostream_backend>>(backend);
        sink->set_filter(logging::expressions::attr<std::string>("Channel") ==
                         "agent::spf::sharedmemory");
        sink->set_formatter(logging::expressions::stream << "spf_sharedmemory: "
                                                         << logging::expressions::smessage);
        logging::core::get()->add_sink(sink);
    });
}

}  // namespace

PYBIND11_MODULE(spf_sharedmemory, module) {
    module.doc() =
        "Named, fixed-size shared-memory segments shared with C++ programs that use the\n"
        "spf-sharedmemory library. A SharedMemory object lends the segment's bytes through the\n"
        "buffer protocol: memoryview(segment) and numpy.frombuffer(segment, dtype) map them with\n"
        "no copy. Failures raise RuntimeError (ValueError for a trustee that names no group)\n"
        "with the library's texts; the library's records go to Boost.Log (see log_to_stderr).";

    py::enum_<Backend>(module, "Backend", "The system facility a segment lives in.")
        .value("POSIX", SharedMemory::Posix, "a POSIX shared-memory object (/dev/shm)")
        .value("SYSV", SharedMemory::SysV, "a System V shared-memory segment (ipcs -m)");

    py::class_<Segment> segment(module, "SharedMemory", py::buffer_protocol(), py::is_final(),
                                R"(A handle to one shared-memory segment, mapped into this process.

Creating the object creates, finds, or creates-or-finds the segment, grants the trustee group
access and maps it. close(), leaving a with-block, or the collection of the last reference
unmaps it and removes it from the system when it is marked for deletion (by default: when
this process created it). A create that finds the name taken, or a find that finds nothing,
yields an object that is not attached (is_attached False) instead of an exception.)");
    auto* type = reinterpret_cast<PyTypeObject*>(segment.ptr());
    type->tp_as_buffer->bf_getbuffer = exportBuffer;
    type->tp_as_buffer->bf_releasebuffer = releaseBuffer;

    segment
        .def(py::init([](const std::string& name, unsigned long size, const std::string& trustee,
                         Backend backend, std::optional<bool> create) {
                 checked(name);
                 checked(trustee);
                 return open(name, size, backend, [&] {
                     return create ? SharedMemory(name, size, *create, trustee, backend)
                                   : SharedMemory(name, size, trustee, backend);
                 });
             }),
             py::arg("name"), py::arg("size"), py::arg("trustee") = "",
             py::arg("backend") = SharedMemory::Posix, py::arg("create") = py::none(),
             R"(Open the segment "/" + name exactly as given.

create None creates or finds it, True only creates it, False only finds it. trustee is a
group name ("" for none): a creator hands the segment to it; a finder that names one stays
unattached unless the segment trusts exactly that group. Raises RuntimeError when a system
call fails or the sizes disagree, ValueError when trustee names no group.)")
        .def_static("create", derivedBy(&SharedMemory::create), py::arg("name"), py::arg("size"),
                    py::arg("trustee") = "", py::arg("backend") = SharedMemory::Posix,
                    "Create only, under the name derived from name and trustee\n"
                    "(derive_segment_name); not attached when that name is taken. Raises as the\n"
                    "constructor.")
        .def_static("find", derivedBy(&SharedMemory::find), py::arg("name"), py::arg("size"),
                    py::arg("trustee") = "", py::arg("backend") = SharedMemory::Posix,
                    "Find only, under the derived name; not attached when no segment has it.\n"
                    "Raises as the constructor.")
        .def_static("create_or_find", derivedBy(&SharedMemory::createOrFind), py::arg("name"),
                    py::arg("size"), py::arg("trustee") = "",
                    py::arg("backend") = SharedMemory::Posix,
                    "Create or find under the derived name. Raises as the constructor.")
        .def_property_readonly(
            "is_creator", [](Segment& self) { return self.handle().isCreator(); },
            "Whether this process created the segment. ValueError once closed.")
        .def_property_readonly(
            "is_attached", [](Segment& self) { return self.held && self.held->isAttached(); },
            "Whether the segment is mapped into this process; False once closed.")
        .def_property_readonly(
            "owner", [](Segment& self) { return self.handle().getOwner(); },
            "The user owning the segment, asked of the system on each access; \"\" when the\n"
            "owner lacks any of rwx. RuntimeError when the system cannot answer (also when not\n"
            "attached).")
        .def_property_readonly(
            "trustee", [](Segment& self) { return self.handle().getTrustee(); },
            "The group the system records for the segment, asked anew on each access; \"\" when\n"
            "the group lacks any of rwx. RuntimeError as owner.")
        .def(
            "mark_for_deletion", [](Segment& self) { self.handle().markForDeletion(); },
            "Have the segment removed from the system at close, whatever the role.")
        .def(
            "make_persistent", [](Segment& self) { self.handle().makePersistent(); },
            "Creator only: keep the segment in the system after close. RuntimeError on a\n"
            "finder, which changes nothing.")
        // The GIL stays held: another thread's close() must not unmap what this one populates.
        .def(
            "reserve", [](Segment& self) { self.handle().reserve(); },
            "Back every byte of the segment with memory now and map it in, so that no access\n"
            "faults for lack of memory (a full /dev/shm raises RuntimeError with error 28\n"
            "instead of a SIGBUS later). Contents do not change.")
        .def("close", &Segment::close,
             "Unmap the segment and remove it when it is marked for deletion. BufferError while a\n"
             "memoryview or NumPy array of it is alive (release or delete those first). A second\n"
             "close does nothing.")
        .def("__enter__", [](py::object self) { return self; })
        .def(
            "__exit__", [](Segment& self, py::args) { self.close(); },
            "close() the segment.")
        .def("__repr__", &describe);

    module.def("derive_segment_name", &sm::deriveSegmentName, py::arg("name"),
               py::arg("trustee") = "",
               "The segment name (without \"/\") that create, find and create_or_find open for\n"
               "name and trustee: 1 to 16 lowercase hexadecimal digits, the same in every process\n"
               "that passes the same name and trustee (with trustee \"\": of the same user).");
    module.def("current_user_name", &sm::getCurrentUserName,
               "\"euid: \" and the effective user id, as the library names the current user.");
    module.def("log_to_stderr", &logToStderr,
               "Send the library's records (one per failure, also teardown failures that raise\n"
               "nothing) to stderr, each line beginning \"spf_sharedmemory: \". Without a sink,\n"
               "Boost.Log prints them on stdout. A second call adds nothing.");
}
