using System;
using System.Collections.Generic;
using System.Globalization;
using System.Text;

namespace QEVR
{
    // A strict reader for the JSON the library hands out (RFC 8259): objects
    // become Dictionary<string, object>, arrays List<object>, strings string,
    // numbers long (integers that fit) or double, true/false bool and null
    // null. Anything else, including duplicate keys, unpaired surrogate
    // escapes and text after the value, is refused with an exception that
    // gives the offset.
    internal sealed class JsonReader
    {
        private const int MaxDepth = 256;
        private readonly string text;
        private int position;

        private JsonReader(string text)
        {
            this.text = text;
        }

        internal static object Parse(string text)
        {
            if (text == null) throw new QevrInvalidJsonException("malformed JSON: no text");
            JsonReader reader = new JsonReader(text);
            reader.SkipSpace();
            object value = reader.Value(0);
            reader.SkipSpace();
            if (reader.position != text.Length) throw reader.Fail("text after the value");
            return value;
        }

        private QevrInvalidJsonException Fail(string what)
        {
            return new QevrInvalidJsonException("malformed JSON at offset " + position + ": " + what);
        }

        private void SkipSpace()
        {
            while (position < text.Length)
            {
                char c = text[position];
                if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return;
                position++;
            }
        }

        private char Peek()
        {
            if (position >= text.Length) throw Fail("unexpected end");
            return text[position];
        }

        private object Value(int depth)
        {
            if (depth > MaxDepth) throw Fail("nested too deeply");
            char c = Peek();
            switch (c)
            {
                case '{': return ReadObject(depth);
                case '[': return ReadArray(depth);
                case '"': return ReadString();
                case 't': Literal("true"); return true;
                case 'f': Literal("false"); return false;
                case 'n': Literal("null"); return null;
                default:
                    if (c == '-' || (c >= '0' && c <= '9')) return ReadNumber();
                    throw Fail("unexpected character '" + c + "'");
            }
        }

        private void Literal(string word)
        {
            if (string.CompareOrdinal(text, position, word, 0, word.Length) != 0) throw Fail("expected " + word);
            position += word.Length;
        }

        private Dictionary<string, object> ReadObject(int depth)
        {
            Dictionary<string, object> members = new Dictionary<string, object>(StringComparer.Ordinal);
            position++;
            SkipSpace();
            if (Peek() == '}')
            {
                position++;
                return members;
            }
            while (true)
            {
                SkipSpace();
                if (Peek() != '"') throw Fail("expected a key");
                int keyAt = position;
                string key = ReadString();
                SkipSpace();
                if (Peek() != ':') throw Fail("expected ':'");
                position++;
                SkipSpace();
                object value = Value(depth + 1);
                if (members.ContainsKey(key))
                {
                    position = keyAt;
                    throw Fail("duplicate key \"" + key + "\"");
                }
                members.Add(key, value);
                SkipSpace();
                char c = Peek();
                position++;
                if (c == '}') return members;
                if (c != ',') { position--; throw Fail("expected ',' or '}'"); }
            }
        }

        private List<object> ReadArray(int depth)
        {
            List<object> items = new List<object>();
            position++;
            SkipSpace();
            if (Peek() == ']')
            {
                position++;
                return items;
            }
            while (true)
            {
                SkipSpace();
                items.Add(Value(depth + 1));
                SkipSpace();
                char c = Peek();
                position++;
                if (c == ']') return items;
                if (c != ',') { position--; throw Fail("expected ',' or ']'"); }
            }
        }

        private string ReadString()
        {
            StringBuilder builder = new StringBuilder();
            position++;
            while (true)
            {
                if (position >= text.Length) throw Fail("unterminated string");
                char c = text[position];
                if (c == '"')
                {
                    position++;
                    return builder.ToString();
                }
                if (c < 0x20) throw Fail("control character in a string");
                if (c == '\\')
                {
                    ReadEscape(builder);
                    continue;
                }
                if (char.IsHighSurrogate(c))
                {
                    if (position + 1 >= text.Length || !char.IsLowSurrogate(text[position + 1]))
                        throw Fail("unpaired surrogate");
                    builder.Append(c).Append(text[position + 1]);
                    position += 2;
                    continue;
                }
                if (char.IsLowSurrogate(c)) throw Fail("unpaired surrogate");
                builder.Append(c);
                position++;
            }
        }

        private void ReadEscape(StringBuilder builder)
        {
            position++;
            char c = Peek();
            position++;
            switch (c)
            {
                case '"': builder.Append('"'); return;
                case '\\': builder.Append('\\'); return;
                case '/': builder.Append('/'); return;
                case 'b': builder.Append('\b'); return;
                case 'f': builder.Append('\f'); return;
                case 'n': builder.Append('\n'); return;
                case 'r': builder.Append('\r'); return;
                case 't': builder.Append('\t'); return;
                case 'u':
                    char unit = ReadHex4();
                    if (char.IsLowSurrogate(unit))
                    {
                        position -= 6;
                        throw Fail("unpaired surrogate escape");
                    }
                    if (char.IsHighSurrogate(unit))
                    {
                        int highAt = position - 6;
                        if (position + 1 >= text.Length || text[position] != '\\' || text[position + 1] != 'u')
                        {
                            position = highAt;
                            throw Fail("unpaired surrogate escape");
                        }
                        position += 2;
                        char low = ReadHex4();
                        if (!char.IsLowSurrogate(low))
                        {
                            position = highAt;
                            throw Fail("unpaired surrogate escape");
                        }
                        builder.Append(unit).Append(low);
                        return;
                    }
                    builder.Append(unit);
                    return;
                default:
                    position -= 2;
                    throw Fail("invalid escape");
            }
        }

        private char ReadHex4()
        {
            if (position + 4 > text.Length) throw Fail("short \\u escape");
            int unit = 0;
            for (int i = 0; i < 4; i++)
            {
                char c = text[position + i];
                int digit;
                if (c >= '0' && c <= '9') digit = c - '0';
                else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
                else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
                else throw Fail("invalid \\u escape");
                unit = unit * 16 + digit;
            }
            position += 4;
            return (char)unit;
        }

        private object ReadNumber()
        {
            int start = position;
            if (text[position] == '-') position++;
            if (position < text.Length && text[position] == '0')
            {
                position++;
            }
            else if (!Digits())
            {
                throw Fail("expected a digit");
            }
            bool integral = true;
            if (position < text.Length && text[position] == '.')
            {
                integral = false;
                position++;
                if (!Digits()) throw Fail("expected a digit after '.'");
            }
            if (position < text.Length && (text[position] == 'e' || text[position] == 'E'))
            {
                integral = false;
                position++;
                if (position < text.Length && (text[position] == '+' || text[position] == '-')) position++;
                if (!Digits()) throw Fail("expected a digit in the exponent");
            }
            string literal = text.Substring(start, position - start);
            long whole;
            if (integral && long.TryParse(literal, NumberStyles.AllowLeadingSign, CultureInfo.InvariantCulture, out whole))
                return whole;
            double number;
            if (!double.TryParse(literal, NumberStyles.Float, CultureInfo.InvariantCulture, out number) ||
                double.IsInfinity(number))
            {
                position = start;
                throw Fail("number out of range");
            }
            return number;
        }

        private bool Digits()
        {
            int start = position;
            while (position < text.Length && text[position] >= '0' && text[position] <= '9') position++;
            return position > start;
        }
    }

    // Writes compact JSON for the records the binding sends.
    internal sealed class JsonWriter
    {
        private readonly StringBuilder builder = new StringBuilder();
        // One entry per open object or array: true until its first member.
        private readonly Stack<bool> empty = new Stack<bool>();
        private bool afterKey;

        public override string ToString()
        {
            return builder.ToString();
        }

        private void Separate()
        {
            if (afterKey)
            {
                afterKey = false;
                return;
            }
            if (empty.Count == 0) return;
            if (!empty.Pop()) builder.Append(',');
            empty.Push(false);
        }

        internal JsonWriter BeginObject()
        {
            Separate();
            builder.Append('{');
            empty.Push(true);
            return this;
        }

        internal JsonWriter EndObject()
        {
            empty.Pop();
            builder.Append('}');
            return this;
        }

        internal JsonWriter BeginArray()
        {
            Separate();
            builder.Append('[');
            empty.Push(true);
            return this;
        }

        internal JsonWriter EndArray()
        {
            empty.Pop();
            builder.Append(']');
            return this;
        }

        internal JsonWriter Key(string key)
        {
            Separate();
            Quote(key);
            builder.Append(':');
            afterKey = true;
            return this;
        }

        internal JsonWriter String(string value)
        {
            Separate();
            Quote(value);
            return this;
        }

        internal JsonWriter Integer(long value)
        {
            Separate();
            builder.Append(value.ToString(CultureInfo.InvariantCulture));
            return this;
        }

        // JSON has no NaN or infinity; `what` names the value when refused.
        internal JsonWriter Number(double value, string what)
        {
            if (double.IsNaN(value) || double.IsInfinity(value))
                throw new QevrInvalidArgumentException(what + " is not a finite number");
            Separate();
            builder.Append(value.ToString("R", CultureInfo.InvariantCulture));
            return this;
        }

        internal JsonWriter Bool(bool value)
        {
            Separate();
            builder.Append(value ? "true" : "false");
            return this;
        }

        // A value as JsonReader decoded it, written back. Numbers keep the
        // type the reader gave them: an integer stays an integer, and a
        // double is written in its round-trip form. `what` names the value
        // in an exception.
        internal JsonWriter Value(object value, string what)
        {
            if (value == null)
            {
                Separate();
                builder.Append("null");
                return this;
            }
            string text = value as string;
            if (text != null) return String(text);
            if (value is bool) return Bool((bool)value);
            if (value is long) return Integer((long)value);
            if (value is double) return Number((double)value, what);
            Dictionary<string, object> members = value as Dictionary<string, object>;
            if (members != null)
            {
                BeginObject();
                foreach (KeyValuePair<string, object> pair in members) Key(pair.Key).Value(pair.Value, what);
                return EndObject();
            }
            List<object> items = value as List<object>;
            if (items != null)
            {
                BeginArray();
                foreach (object item in items) Value(item, what);
                return EndArray();
            }
            throw new QevrInternalException(what + " holds a " + value.GetType().FullName + ", not a JSON value");
        }

        // Non-ASCII text is written as it is; the whole text is encoded as
        // UTF-8 afterwards, which refuses lone surrogates.
        private void Quote(string value)
        {
            builder.Append('"');
            foreach (char c in value)
            {
                switch (c)
                {
                    case '"': builder.Append("\\\""); break;
                    case '\\': builder.Append("\\\\"); break;
                    case '\n': builder.Append("\\n"); break;
                    case '\r': builder.Append("\\r"); break;
                    case '\t': builder.Append("\\t"); break;
                    case '\b': builder.Append("\\b"); break;
                    case '\f': builder.Append("\\f"); break;
                    default:
                        if (c < 0x20) builder.Append("\\u").Append(((int)c).ToString("x4", CultureInfo.InvariantCulture));
                        else builder.Append(c);
                        break;
                }
            }
            builder.Append('"');
        }
    }

    // Dates cross the C API as seconds since 2001-01-01T00:00:00Z.
    internal static class Dates
    {
        internal static readonly DateTime Reference = new DateTime(2001, 1, 1, 0, 0, 0, DateTimeKind.Utc);

        internal static double ToSeconds(DateTime utc)
        {
            return (utc.Ticks - Reference.Ticks) / (double)TimeSpan.TicksPerSecond;
        }

        internal static DateTime FromSeconds(double seconds, string path)
        {
            // The offset alone fits a double exactly to the tick; the sum with
            // the reference (about 6e17 ticks) would not.
            double offset = Math.Round(seconds * TimeSpan.TicksPerSecond);
            if (double.IsNaN(offset) || offset < DateTime.MinValue.Ticks - Reference.Ticks ||
                offset > DateTime.MaxValue.Ticks - Reference.Ticks)
                throw new QevrInvalidJsonException(path + ": date out of range");
            return new DateTime(Reference.Ticks + (long)offset, DateTimeKind.Utc);
        }
    }

    // Typed access to one decoded object, for building the result records.
    // A missing required key or a value of the wrong type is refused with
    // the path of the value at fault.
    internal sealed class JsonFields
    {
        private readonly Dictionary<string, object> values;
        private readonly string path;

        private JsonFields(Dictionary<string, object> values, string path)
        {
            this.values = values;
            this.path = path;
        }

        internal static JsonFields Of(object value, string path)
        {
            Dictionary<string, object> map = value as Dictionary<string, object>;
            if (map == null) throw new QevrInvalidJsonException(path + ": expected an object");
            return new JsonFields(map, path);
        }

        internal static JsonFields Parse(string json, string path)
        {
            return Of(JsonReader.Parse(json), path);
        }

        internal static List<object> ParseArray(string json, string path)
        {
            List<object> items = JsonReader.Parse(json) as List<object>;
            if (items == null) throw new QevrInvalidJsonException(path + ": expected an array");
            return items;
        }

        private QevrInvalidJsonException WrongType(string key, string expected)
        {
            return new QevrInvalidJsonException(path + "." + key + ": expected " + expected);
        }

        private object Required(string key)
        {
            object value;
            if (!values.TryGetValue(key, out value) || value == null)
                throw new QevrInvalidJsonException(path + "." + key + ": missing");
            return value;
        }

        private object Optional(string key)
        {
            object value;
            return values.TryGetValue(key, out value) ? value : null;
        }

        internal string String(string key)
        {
            string text = Required(key) as string;
            if (text == null) throw WrongType(key, "a string");
            return text;
        }

        internal string OptionalString(string key)
        {
            object value = Optional(key);
            if (value == null) return null;
            string text = value as string;
            if (text == null) throw WrongType(key, "a string");
            return text;
        }

        internal bool Bool(string key)
        {
            object value = Required(key);
            if (!(value is bool)) throw WrongType(key, "true or false");
            return (bool)value;
        }

        internal long Integer(string key)
        {
            object value = Required(key);
            if (!(value is long)) throw WrongType(key, "an integer");
            return (long)value;
        }

        internal long? OptionalInteger(string key)
        {
            if (Optional(key) == null) return null;
            return Integer(key);
        }

        internal double Number(string key)
        {
            return AsNumber(key, Required(key));
        }

        internal double? OptionalNumber(string key)
        {
            object value = Optional(key);
            if (value == null) return null;
            return AsNumber(key, value);
        }

        private double AsNumber(string key, object value)
        {
            if (value is long) return (long)value;
            if (value is double) return (double)value;
            throw WrongType(key, "a number");
        }

        internal DateTime Date(string key)
        {
            return Dates.FromSeconds(Number(key), path + "." + key);
        }

        internal DateTime? OptionalDate(string key)
        {
            double? seconds = OptionalNumber(key);
            if (seconds == null) return null;
            return Dates.FromSeconds(seconds.Value, path + "." + key);
        }

        internal IReadOnlyList<string> Strings(string key)
        {
            List<object> items = Required(key) as List<object>;
            if (items == null) throw WrongType(key, "an array");
            List<string> texts = new List<string>(items.Count);
            for (int i = 0; i < items.Count; i++)
            {
                string text = items[i] as string;
                if (text == null) throw WrongType(key + "[" + i + "]", "a string");
                texts.Add(text);
            }
            return texts.AsReadOnly();
        }

        internal IReadOnlyList<DateTime> DateList(string key)
        {
            List<object> items = Required(key) as List<object>;
            if (items == null) throw WrongType(key, "an array");
            List<DateTime> dates = new List<DateTime>(items.Count);
            for (int i = 0; i < items.Count; i++)
            {
                object item = items[i];
                if (!(item is long) && !(item is double)) throw WrongType(key + "[" + i + "]", "a number");
                dates.Add(Dates.FromSeconds(Convert.ToDouble(item), path + "." + key + "[" + i + "]"));
            }
            return dates.AsReadOnly();
        }

        internal IReadOnlyDictionary<string, long> Counts(string key)
        {
            JsonFields counts = Object(key);
            Dictionary<string, long> result = new Dictionary<string, long>(StringComparer.Ordinal);
            foreach (KeyValuePair<string, object> pair in counts.values)
                result.Add(pair.Key, counts.Integer(pair.Key));
            return result;
        }

        internal IReadOnlyDictionary<string, string> OptionalStringMap(string key)
        {
            if (Optional(key) == null) return null;
            JsonFields map = Object(key);
            Dictionary<string, string> result = new Dictionary<string, string>(StringComparer.Ordinal);
            foreach (KeyValuePair<string, object> pair in map.values)
                result.Add(pair.Key, map.String(pair.Key));
            return result;
        }

        internal JsonFields Object(string key)
        {
            return Of(Required(key), path + "." + key);
        }

        internal JsonFields OptionalObject(string key)
        {
            object value = Optional(key);
            return value == null ? null : Of(value, path + "." + key);
        }
    }
}
