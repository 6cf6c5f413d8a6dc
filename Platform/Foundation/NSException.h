// Exceptions and the assertion handler. A platform exception carries a name and a reason; an
// assertion failure also carries the method (or function), file and line that asserted, exactly
// as the asserting code passed them.
#pragma once

#include <exception>
#include <memory>
#include <string>

extern const std::string NSInternalInconsistencyException;  // "NSInternalInconsistencyException"
extern const std::string NSInvalidArgumentException;        // "NSInvalidArgumentException"
extern const std::string NSRangeException;                  // "NSRangeException"
extern const std::string NSGenericException;                // "NSGenericException"

class NSException : public std::exception {
 public:
  NSException(std::string name, std::string reason);
  // An exception raised by the assertion handler, which also records where the assertion sits.
  NSException(std::string name, std::string reason, std::string method, std::string file, int line);

  // Throws an exception with the given name and reason (the platform's raise:format:, with
  // the reason already formatted).
  [[noreturn]] static void raise(const std::string& name, const std::string& reason);

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  // For assertion failures: the method or function, the file name as given and the line; empty
  // and 0 for exceptions raised directly.
  const std::string& method() const { return method_; }
  const std::string& file() const { return file_; }
  int line() const { return line_; }

  // The reason, so that an uncaught exception prints something useful.
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  std::string method_;
  std::string file_;
  int line_ = 0;
};

// The object that assertions report to. The default handler raises an
// NSInternalInconsistencyException; a thread may install its own handler (a subclass) to
// intercept failures.
class NSAssertionHandler {
 public:
  virtual ~NSAssertionHandler() = default;

  // The handler of the calling thread: the one installed with setCurrentHandler, or the
  // process-wide default handler.
  static NSAssertionHandler& currentHandler();
  // Installs a handler for the calling thread only; nullptr restores the default.
  static void setCurrentHandler(std::shared_ptr<NSAssertionHandler> handler);

  // A failed parameter assertion in a method: raises NSInternalInconsistencyException with the
  // reason "Invalid parameter not satisfying: <conditionText>", carrying method, fileName and
  // line exactly as given. objectDescription names the receiver (it may be empty).
  virtual void handleFailureInMethod(const std::string& method, const std::string& objectDescription,
                                     const std::string& fileName, int line, const std::string& conditionText);
  // The same for a plain function.
  virtual void handleFailureInFunction(const std::string& function, const std::string& fileName, int line,
                                       const std::string& conditionText);
  // A failed assertion with a free-form description (the reason of the exception).
  virtual void handleFailureWithDescription(const std::string& methodOrFunction, const std::string& fileName,
                                            int line, const std::string& description);
};

// The reason text of a failed parameter assertion: "Invalid parameter not satisfying: <cond>".
std::string QVInvalidParameterReason(const std::string& conditionText);

// Parameter assertions with an explicit method (or function), file and line. When
// NS_BLOCK_ASSERTIONS is defined they compile to nothing, as the platform's assertions do.
#ifdef NS_BLOCK_ASSERTIONS
#define QVParameterAssert(condition, method, file, line) ((void)0)
#define QVCParameterAssert(condition, function, file, line) ((void)0)
#else
#define QVParameterAssert(condition, method, file, line)                                                    \
  do {                                                                                                      \
    if (!(condition))                                                                                       \
      ::NSAssertionHandler::currentHandler().handleFailureInMethod((method), std::string(), (file), (line), \
                                                                   #condition);                             \
  } while (0)
#define QVCParameterAssert(condition, function, file, line)                                                 \
  do {                                                                                                      \
    if (!(condition))                                                                                       \
      ::NSAssertionHandler::currentHandler().handleFailureInFunction((function), (file), (line), #condition); \
  } while (0)
#endif
