using System;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

namespace QEVR
{
    // The C API of libqevr, one declaration per function of qevr.h. Text
    // arguments are NUL-terminated UTF-8 byte arrays built by Utf8.ToNative
    // (null is NULL); strings handed out come back as IntPtr and are decoded
    // by Utf8.FromNative, then released with qevr_string_free.
    internal static class Native
    {
        private const string Library = "qevr";

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr qevr_version();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr qevr_last_error();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void qevr_string_free(IntPtr text);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_cancel_token_new(out IntPtr token);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_cancel_token_cancel(IntPtr token);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void qevr_cancel_token_free(IntPtr token);

        // Only ever given NULL here: the binding takes its lines from the queue.
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_set_log_callback(IntPtr callback, IntPtr userData);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_set_log_queue(long capacity);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_next_log_line(long timeoutMs, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_set_data_directory(byte[] path);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_wait_for_background_idle(long timeoutMs, out int idle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_start(byte[] configurationJson);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_pause();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_resume();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_shutdown();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_get_lifecycle_state();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_observer_privacy_options(out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_observer_configure(byte[] privacyJson);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_track(byte[] name, byte[] metadata, out int dispatched);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_screen_view(byte[] screenName, byte[] metadata, out int dispatched);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_screen_disappear(byte[] screenName, byte[] metadata,
            out int dispatched);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_navigation(byte[] from, byte[] to, byte[] metadata, out int dispatched);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_button_tap(byte[] componentId, byte[] title, byte[] metadata,
            out int dispatched);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_gesture(byte[] gestureType, byte[] componentId, byte[] metadata,
            out int dispatched);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_options(out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_configure(byte[] optionsJson);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_stats(IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_set_continuity(int enabled);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_continuity(out int enabled);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_clear(IntPtr cancel);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_memory_snapshot(IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_summarize_behavior(IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_analyze_intent(byte[] domain, IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_detect_frustration(IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_analyze_skill(byte[] domain, IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_generate(byte[] domain, byte[] policy, IntPtr cancel, out IntPtr json);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_set_outcome_learning(int enabled);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_outcome_learning(out int enabled);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_record_outcome(byte[] recommendationJson, byte[] outcome);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int qevr_outcomes(out IntPtr json);
    }

    // Text across the boundary: UTF-8 both ways, never the platform's code page.
    internal static class Utf8
    {
        // Throws on a lone surrogate (encoding) and on malformed bytes
        // (decoding) instead of replacing them with U+FFFD.
        private static readonly UTF8Encoding Strict = new UTF8Encoding(false, true);
        private static readonly UTF8Encoding Lenient = new UTF8Encoding(false, false);

        private static long freed;

        // How many library strings this process has released; the tests
        // compare it across calls to prove every string is freed once.
        internal static long FreedCount
        {
            get { return Interlocked.Read(ref freed); }
        }

        // `value` as NUL-terminated UTF-8, or null for null. `argument` names
        // the value in the exception. Refused before any native call: a
        // string with a NUL inside (C would silently cut it there) and one
        // with a lone surrogate (which has no UTF-8 form).
        internal static byte[] ToNative(string value, string argument)
        {
            if (value == null) return null;
            if (value.IndexOf('\0') >= 0)
                throw new QevrInvalidArgumentException(argument + " contains a NUL character");
            try
            {
                byte[] bytes = new byte[Strict.GetByteCount(value) + 1];
                Strict.GetBytes(value, 0, value.Length, bytes, 0);
                return bytes;
            }
            catch (EncoderFallbackException error)
            {
                throw new QevrInvalidUtf8Exception(argument + " holds a lone surrogate at index " + error.Index +
                    " and has no UTF-8 form");
            }
        }

        // The NUL-terminated UTF-8 text at `pointer`; null for NULL.
        // Malformed bytes are a fault of the library, not of the caller.
        internal static string FromNative(IntPtr pointer)
        {
            byte[] bytes = Bytes(pointer);
            if (bytes == null) return null;
            try
            {
                return Strict.GetString(bytes);
            }
            catch (DecoderFallbackException)
            {
                throw new QevrInternalException("the library handed out text that is not UTF-8");
            }
        }

        // For log lines and error texts, which must never throw: bad bytes
        // become U+FFFD.
        internal static string FromNativeLenient(IntPtr pointer)
        {
            byte[] bytes = Bytes(pointer);
            return bytes == null ? "" : Lenient.GetString(bytes);
        }

        private static byte[] Bytes(IntPtr pointer)
        {
            if (pointer == IntPtr.Zero) return null;
            int length = 0;
            while (Marshal.ReadByte(pointer, length) != 0) length++;
            byte[] bytes = new byte[length];
            Marshal.Copy(pointer, bytes, 0, length);
            return bytes;
        }

        // Decodes then releases a string the library handed out; releases it
        // even when decoding fails. NULL (after a failed call) is ignored.
        internal static string Take(IntPtr pointer)
        {
            if (pointer == IntPtr.Zero) return null;
            try
            {
                return FromNative(pointer);
            }
            finally
            {
                Native.qevr_string_free(pointer);
                Interlocked.Increment(ref freed);
            }
        }
    }
}
