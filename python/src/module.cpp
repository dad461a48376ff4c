// The kelmsg Python module: the bus, its four message types and verified
// file transfers, for scripts of the analysis suite.
#include <optional>
#include <string>

#include <KelMsgFeaMessaging/KelMsgFileTransferData.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <pybind11/operators.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "Application.h"
#include "BusFailure.h"
#include "Departure.h"
#include "FileRecordMessage.h"
#include "KillMessage.h"
#include "LibraryText.h"
#include "TextMessage.h"
#include "TransferFailure.h"
#include "XmlMessage.h"

namespace py = pybind11;
using namespace pybind11::literals;

namespace {

py::bytes Bytes(const std::string& data) {
  return {data.data(), data.size()};
}

// "Kind(field=value, ...)" of a message, for people.
std::string Repr(const char* kind, const py::object& fields) {
  return std::string(kind) + "(" + py::str(fields).cast<std::string>() + ")";
}

void BindText(py::module_& m) {
  py::class_<TextMessage>(m, "Text", "A message of raw bytes.")
      .def(py::init([](const py::bytes& data) { return TextMessage{data}; }), "data"_a)
      .def(py::init([](const std::string& text) { return TextMessage{text}; }), "text"_a)
      .def_property(
          "data", [](const TextMessage& self) { return Bytes(self.data); },
          [](TextMessage& self, const py::bytes& data) { self.data = data; })
      .def(py::self == py::self)
      .def("__repr__",
           [](const TextMessage& self) { return Repr("Text", py::repr(Bytes(self.data))); });
}

void BindXml(py::module_& m) {
  py::class_<XmlMessage>(m, "Xml", "An analysis message: one XML document, carried unparsed.")
      .def(py::init([](std::string document) { return XmlMessage{std::move(document)}; }),
           "document"_a)
      .def_readwrite("document", &XmlMessage::document)
      .def(py::self == py::self)
      .def("__repr__",
           [](const XmlMessage& self) { return Repr("Xml", py::repr(py::str(self.document))); });
}

void BindKill(py::module_& m) {
  py::class_<KillMessage>(m, "Kill", "A request to stop: soft (save and leave) or hard.")
      .def(py::init([](bool hard) { return KillMessage{hard}; }), "hard"_a = false)
      .def_readwrite("hard", &KillMessage::hard)
      .def(py::self == py::self)
      .def("__repr__", [](const KillMessage& self) {
        return std::string(self.hard ? "Kill(hard=True)" : "Kill(hard=False)");
      });
}

void BindFileRecord(py::module_& m) {
  py::class_<FileRecordMessage> record(m, "FileRecord",
                                       "One step of a chunked file transfer, as it travels.");
  record
      .def(py::init([](std::int32_t dataType, std::string sourceApplication,
                       std::string sourceBaseDir, std::string sourceJobDir,
                       std::string sourceFileName, std::string targetApplication,
                       std::string targetBaseDir, std::string targetJobDir,
                       std::string targetFileName, std::int32_t chunkId, const py::bytes& chunk) {
             return FileRecordMessage{
                 dataType,       sourceApplication, sourceBaseDir, sourceJobDir,
                 sourceFileName, targetApplication, targetBaseDir, targetJobDir,
                 targetFileName, chunkId,           chunk};
           }),
           "data_type"_a, "source_application"_a = "", "source_base_dir"_a = "",
           "source_job_dir"_a = "", "source_file_name"_a = "", "target_application"_a = "",
           "target_base_dir"_a = "", "target_job_dir"_a = "", "target_file_name"_a = "",
           "chunk_id"_a = 0, "chunk"_a = py::bytes())
      .def_readwrite("data_type", &FileRecordMessage::dataType)
      .def_readwrite("source_application", &FileRecordMessage::sourceApplication)
      .def_readwrite("source_base_dir", &FileRecordMessage::sourceBaseDir)
      .def_readwrite("source_job_dir", &FileRecordMessage::sourceJobDir)
      .def_readwrite("source_file_name", &FileRecordMessage::sourceFileName)
      .def_readwrite("target_application", &FileRecordMessage::targetApplication)
      .def_readwrite("target_base_dir", &FileRecordMessage::targetBaseDir)
      .def_readwrite("target_job_dir", &FileRecordMessage::targetJobDir)
      .def_readwrite("target_file_name", &FileRecordMessage::targetFileName)
      .def_readwrite("chunk_id", &FileRecordMessage::chunkId)
      .def_property(
          "chunk", [](const FileRecordMessage& self) { return Bytes(self.chunk); },
          [](FileRecordMessage& self, const py::bytes& chunk) { self.chunk = chunk; })
      .def(py::self == py::self)
      .def("__repr__", [](const FileRecordMessage& self) {
        return Repr("FileRecord",
                    py::str("data_type={}, source={!r}:{!r}, target={!r}:{!r}, "
                            "chunk_id={}, chunk={} bytes")
                        .format(self.dataType, self.sourceApplication, self.sourceFileName,
                                self.targetApplication, self.targetFileName, self.chunkId,
                                self.chunk.size()));
      });
  record.attr("SEND_REQUEST") = int{KelMsgFileTransferData::FILE_TRANSFER_SEND_REQUEST};
  record.attr("NOTIFY") = int{KelMsgFileTransferData::FILE_TRANSFER_NOTIFY};
  record.attr("CHUNK") = int{KelMsgFileTransferData::FILE_TRANSFER_CHUNK};
  record.attr("SEND_COMPLETION") = int{KelMsgFileTransferData::FILE_TRANSFER_SEND_COMPLETION};
  record.attr("ISEND_COMPLETION") = int{KelMsgFileTransferData::FILE_TRANSFER_ISEND_COMPLETION};
  record.attr("RECEIVE_COMPLETION") = int{KelMsgFileTransferData::FILE_TRANSFER_RECEIVE_COMPLETION};
}

void BindDeparture(py::module_& m) {
  py::class_<Departure>(m, "Departure", "A process that left the bus.")
      .def_readonly("pid", &Departure::pid)
      .def_readonly("application", &Departure::application)
      .def_readonly("host", &Departure::host)
      .def_readonly("user", &Departure::user)
      .def("__repr__", [](const Departure& self) {
        return Repr("Departure", py::str("pid={}, application={!r}, host={!r}, user={!r}")
                                     .format(self.pid, self.application, self.host, self.user));
      });
}

template <class Value>
void BindSend(py::class_<Application>& application) {
  application.def(
      "send",
      [](Application& self, const std::string& target, Value message) {
        self.Send(target, message);
      },
      "target"_a, "message"_a);
}

Application::Transfer TransferOf(std::string peer, std::string fileName, std::string peerFileName,
                                 std::string baseDir, std::string jobDir, std::string peerBaseDir,
                                 std::string peerJobDir, std::optional<double> timeout,
                                 py::object progress) {
  return {
      std::move(peer),        std::move(baseDir),    std::move(jobDir),       std::move(fileName),
      std::move(peerBaseDir), std::move(peerJobDir), std::move(peerFileName), timeout,
      std::move(progress)};
}

void BindApplication(py::module_& m) {
  py::class_<Application> application(m, "Application",
                                      "This process on the bus as one application.");
  application
      .def(py::init([](std::string name, bool takeOver, bool transfers, bool keepPartial) {
             return new Application({std::move(name), takeOver, transfers, keepPartial});
           }),
           "name"_a, py::kw_only(), "take_over"_a = false, "transfers"_a = true,
           "keep_partial"_a = false)
      .def_property_readonly("name", &Application::Name)
      .def_property_readonly("open", &Application::Open)
      .def("close", &Application::Close)
      .def(
          "__enter__", [](Application& self) -> Application& { return self; },
          py::return_value_policy::reference)
      .def("__exit__",
           [](Application& self, const py::args&) {
             self.Close();
             return false;
           })
      .def("handle", &Application::Handle, "message_type"_a, "handler"_a)
      .def("on_departure", &Application::OnDeparture, "handler"_a)
      .def("wait", &Application::Wait, "until"_a = py::none(), "timeout"_a = py::none())
      .def(
          "push",
          [](Application& self, std::string application, std::string source, std::string target,
             std::string baseDir, std::string jobDir, std::string peerBaseDir,
             std::string peerJobDir, bool wait, std::optional<double> timeout,
             py::object progress) {
            return self.Push(
                TransferOf(std::move(application), std::move(source), std::move(target),
                           std::move(baseDir), std::move(jobDir), std::move(peerBaseDir),
                           std::move(peerJobDir), timeout, std::move(progress)),
                wait);
          },
          "application"_a, "source"_a, "target"_a, py::kw_only(), "base_dir"_a = "",
          "job_dir"_a = "", "peer_base_dir"_a = "", "peer_job_dir"_a = "", "wait"_a = true,
          "timeout"_a = 60.0, "progress"_a = py::none())
      .def(
          "pull",
          [](Application& self, std::string application, std::string source, std::string target,
             std::string baseDir, std::string jobDir, std::string peerBaseDir,
             std::string peerJobDir, std::optional<double> timeout, py::object progress) {
            return self.Pull(TransferOf(std::move(application), std::move(target),
                                        std::move(source), std::move(baseDir), std::move(jobDir),
                                        std::move(peerBaseDir), std::move(peerJobDir), timeout,
                                        std::move(progress)));
          },
          "application"_a, "source"_a, "target"_a, py::kw_only(), "base_dir"_a = "",
          "job_dir"_a = "", "peer_base_dir"_a = "", "peer_job_dir"_a = "", "timeout"_a = 60.0,
          "progress"_a = py::none());
  BindSend<TextMessage>(application);
  BindSend<XmlMessage>(application);
  BindSend<KillMessage>(application);
  BindSend<FileRecordMessage>(application);
}

// The stamp-file test for a directory that two applications should share.
void BindStamps(py::module_& m) {
  auto text = [](const std::string& value) { return LibraryText::From(value, "a name"); };
  m.def(
      "stamp",
      [text](const std::string& base, const std::string& job, const std::string& name) {
        KelMsgPathExplorer::StampPath(text(base), text(job), text(name));
      },
      "base_dir"_a, "job_dir"_a, "name"_a);
  m.def(
      "is_shared",
      [text](const std::string& base, const std::string& job, const std::string& name) {
        return KelMsgPathExplorer::IsSharedPath(text(base), text(job), text(name));
      },
      "base_dir"_a, "job_dir"_a, "name"_a);
  m.def(
      "unstamp",
      [text](const std::string& base, const std::string& job, const std::string& name) {
        KelMsgPathExplorer::RemoveStampFile(text(base), text(job), text(name));
      },
      "base_dir"_a, "job_dir"_a, "name"_a);
}

}  // namespace

PYBIND11_MODULE(_kelmsg, m) {
  m.doc() = "The KelMsgFeaMessaging bus from Python.";
  py::register_exception<BusFailure>(m, "BusError", PyExc_RuntimeError);
  py::register_exception<TransferFailure>(m, "TransferError", PyExc_RuntimeError);
  BindText(m);
  BindXml(m);
  BindKill(m);
  BindFileRecord(m);
  BindDeparture(m);
  BindApplication(m);
  BindStamps(m);
}
