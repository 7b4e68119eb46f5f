#include "platform/system_message.h"

#include <new>
#include <string_view>

namespace qv::platform {
namespace {

struct Message {
  HRESULT code;
  std::u16string_view text;
};

// Win32 errors, by number, in the wording of current English Windows.
constexpr Message kWin32Messages[] = {
    {ERROR_SUCCESS, u"The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, u"Incorrect function."},
    {ERROR_FILE_NOT_FOUND, u"The system cannot find the file specified."},
    {ERROR_PATH_NOT_FOUND, u"The system cannot find the path specified."},
    {ERROR_TOO_MANY_OPEN_FILES, u"The system cannot open the file."},
    {ERROR_ACCESS_DENIED, u"Access is denied."},
    {ERROR_INVALID_HANDLE, u"The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY,
     u"Not enough memory resources are available to process this command."},
    {ERROR_BAD_FORMAT, u"An attempt was made to load a program with an incorrect format."},
    {ERROR_INVALID_DATA, u"The data is invalid."},
    {ERROR_OUTOFMEMORY, u"Not enough memory resources are available to complete this operation."},
    {ERROR_NOT_READY, u"The device is not ready."},
    {ERROR_HANDLE_EOF, u"Reached the end of the file."},
    {ERROR_NOT_SUPPORTED, u"The request is not supported."},
    {ERROR_FILE_EXISTS, u"The file exists."},
    {ERROR_INVALID_PARAMETER, u"The parameter is incorrect."},
    {ERROR_BROKEN_PIPE, u"The pipe has been ended."},
    {ERROR_CALL_NOT_IMPLEMENTED, u"This function is not supported on this system."},
    {ERROR_SEM_TIMEOUT, u"The semaphore timeout period has expired."},
    {ERROR_INSUFFICIENT_BUFFER, u"The data area passed to a system call is too small."},
    {ERROR_INVALID_NAME, u"The filename, directory name, or volume label syntax is incorrect."},
    {ERROR_MOD_NOT_FOUND, u"The specified module could not be found."},
    {ERROR_PROC_NOT_FOUND, u"The specified procedure could not be found."},
    {ERROR_BAD_PATHNAME, u"The specified path is invalid."},
    {ERROR_BUSY, u"The requested resource is in use."},
    {ERROR_ALREADY_EXISTS, u"Cannot create a file when that file already exists."},
    {ERROR_ENVVAR_NOT_FOUND, u"The system could not find the environment option that was entered."},
    {ERROR_FILENAME_EXCED_RANGE, u"The filename or extension is too long."},
    {ERROR_BAD_PIPE, u"The pipe state is invalid."},
    {ERROR_PIPE_BUSY, u"All pipe instances are busy."},
    {ERROR_NO_DATA, u"The pipe is being closed."},
    {ERROR_PIPE_NOT_CONNECTED, u"No process is on the other end of the pipe."},
    {ERROR_MORE_DATA, u"More data is available."},
    {ERROR_NO_MORE_ITEMS, u"No more data is available."},
    {ERROR_DIRECTORY, u"The directory name is invalid."},
    {ERROR_PIPE_CONNECTED, u"There is a process on other end of the pipe."},
    {ERROR_PIPE_LISTENING, u"Waiting for a process to open the other end of the pipe."},
    {ERROR_OPERATION_ABORTED,
     u"The I/O operation has been aborted because of either a thread exit or an application "
     u"request."},
    {ERROR_IO_INCOMPLETE, u"Overlapped I/O event is not in a signaled state."},
    {ERROR_IO_PENDING, u"Overlapped I/O operation is in progress."},
    {ERROR_NOT_FOUND, u"Element not found."},
    {ERROR_CANCELLED, u"The operation was canceled by the user."},
    {ERROR_CONNECTION_REFUSED, u"The remote computer refused the network connection."},
    {ERROR_TIMEOUT, u"This operation returned because the timeout period expired."},
};

// HRESULTs outside FACILITY_WIN32.
constexpr Message kHresultMessages[] = {
    {E_UNEXPECTED, u"Catastrophic failure"},
    {E_NOTIMPL, u"Not implemented"},
    {E_NOINTERFACE, u"No such interface supported"},
    {E_POINTER, u"Invalid pointer"},
    {E_ABORT, u"Operation aborted"},
    {E_FAIL, u"Unspecified error"},
    {E_PENDING, u"The data necessary to complete this operation is not yet available."},
    {E_BOUNDS, u"The operation attempted to access data outside the valid range"},
    {DISP_E_UNKNOWNINTERFACE, u"Unknown interface."},
    {DISP_E_MEMBERNOTFOUND, u"Member not found."},
    {DISP_E_PARAMNOTFOUND, u"Parameter not found."},
    {DISP_E_TYPEMISMATCH, u"Type mismatch."},
    {DISP_E_UNKNOWNNAME, u"Unknown name."},
    {DISP_E_NONAMEDARGS, u"No named arguments."},
    {DISP_E_BADVARTYPE, u"Bad variable type."},
    {DISP_E_EXCEPTION, u"Exception occurred."},
    {DISP_E_OVERFLOW, u"Out of present range."},
    {DISP_E_BADINDEX, u"Invalid index."},
    {DISP_E_UNKNOWNLCID, u"Unknown language."},
    {DISP_E_ARRAYISLOCKED, u"Memory is locked."},
    {DISP_E_BADPARAMCOUNT, u"Invalid number of parameters."},
    {DISP_E_PARAMNOTOPTIONAL, u"Parameter not optional."},
    {DISP_E_BADCALLEE, u"Invalid callee."},
    {DISP_E_NOTACOLLECTION, u"Does not support a collection."},
    {DISP_E_DIVBYZERO, u"Division by zero."},
    {DISP_E_BUFFERTOOSMALL, u"Buffer too small"},
    {TYPE_E_LIBNOTREGISTERED, u"Library not registered."},
    {TYPE_E_ELEMENTNOTFOUND, u"Element not found."},
    {CLASS_E_NOAGGREGATION, u"Class does not support aggregation (or class object is remote)"},
    {CLASS_E_CLASSNOTAVAILABLE, u"ClassFactory cannot supply requested class"},
    {CLASS_E_NOTLICENSED, u"Class is not licensed for use"},
    {REGDB_E_CLASSNOTREG, u"Class not registered"},
    {CO_E_NOTINITIALIZED, u"CoInitialize has not been called."},
};

template <std::size_t N>
const Message* Find(const Message (&table)[N], HRESULT code) {
  for (const Message& message : table) {
    if (message.code == code) return &message;
  }
  return nullptr;
}

}  // namespace

std::optional<std::u16string> SystemMessageText(HRESULT code) noexcept {
  const Message* message = nullptr;
  // FormatMessage treats an error HRESULT of FACILITY_WIN32 and a bare Win32 error number (a
  // positive 16-bit value, which includes S_FALSE == ERROR_INVALID_FUNCTION) alike.
  if (HRESULT_SEVERITY(code) == SEVERITY_ERROR && HRESULT_FACILITY(code) == FACILITY_WIN32) {
    message = Find(kWin32Messages, HRESULT_CODE(code));
  } else if (code >= 0 && code <= 0xFFFF) {
    message = Find(kWin32Messages, code);
  } else {
    message = Find(kHresultMessages, code);
  }
  if (message == nullptr) return std::nullopt;
  try {
    return std::u16string(message->text);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace qv::platform
