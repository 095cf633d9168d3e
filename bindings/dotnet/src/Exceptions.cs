using System;

namespace QEVR
{
    // qevr_status, as in qevr.h.
    public enum QevrStatus
    {
        Ok = 0,
        InvalidArgument = 1,
        InvalidJson = 2,
        InvalidUtf8 = 3,
        State = 4,
        Unavailable = 5,
        Cancelled = 6,
        IO = 7,
        OutOfMemory = 8,
        Internal = 9
    }

    // A call the library (or the binding, before calling it) refused. Code
    // is the C status; Message is the library's text, naming the argument
    // at fault. A refused call changed nothing.
    public class QevrException : Exception
    {
        public QevrException(QevrStatus code, string message)
            : base(message)
        {
            Code = code;
        }

        public QevrStatus Code { get; private set; }

        internal static QevrException FromStatus(int status, string message)
        {
            switch ((QevrStatus)status)
            {
                case QevrStatus.InvalidArgument: return new QevrInvalidArgumentException(message);
                case QevrStatus.InvalidJson: return new QevrInvalidJsonException(message);
                case QevrStatus.InvalidUtf8: return new QevrInvalidUtf8Exception(message);
                case QevrStatus.State: return new QevrStateException(message);
                case QevrStatus.Unavailable: return new QevrUnavailableException(message);
                case QevrStatus.Cancelled: return new QevrCancelledException(message);
                case QevrStatus.IO: return new QevrIOException(message);
                case QevrStatus.OutOfMemory: return new QevrOutOfMemoryException(message);
                case QevrStatus.Internal: return new QevrInternalException(message);
                default: return new QevrException((QevrStatus)status, message);
            }
        }
    }

    // A missing value, an unknown gesture type, a blank appId; from the
    // binding: a metadata value of a type it does not carry, a string with
    // a NUL inside.
    public class QevrInvalidArgumentException : QevrException
    {
        public QevrInvalidArgumentException(string message) : base(QevrStatus.InvalidArgument, message) { }
    }

    // Text that is not the record asked for; also a malformed result.
    public class QevrInvalidJsonException : QevrException
    {
        public QevrInvalidJsonException(string message) : base(QevrStatus.InvalidJson, message) { }
    }

    // A string with a lone surrogate, which has no UTF-8 form.
    public class QevrInvalidUtf8Exception : QevrException
    {
        public QevrInvalidUtf8Exception(string message) : base(QevrStatus.InvalidUtf8, message) { }
    }

    // A lifecycle call the current state does not allow.
    public class QevrStateException : QevrException
    {
        public QevrStateException(string message) : base(QevrStatus.State, message) { }
    }

    // A part of the system the call needs is not there.
    public class QevrUnavailableException : QevrException
    {
        public QevrUnavailableException(string message) : base(QevrStatus.Unavailable, message) { }
    }

    // The call's CancellationToken was cancelled.
    public class QevrCancelledException : QevrException
    {
        public QevrCancelledException(string message) : base(QevrStatus.Cancelled, message) { }
    }

    // The memory store could not be read or written, or a file is damaged.
    public class QevrIOException : QevrException
    {
        public QevrIOException(string message) : base(QevrStatus.IO, message) { }
    }

    public class QevrOutOfMemoryException : QevrException
    {
        public QevrOutOfMemoryException(string message) : base(QevrStatus.OutOfMemory, message) { }
    }

    // A fault of the library, never of the arguments.
    public class QevrInternalException : QevrException
    {
        public QevrInternalException(string message) : base(QevrStatus.Internal, message) { }
    }
}
