// The cat command: enumerates the records and prints them in one of its formats.
#include <fmt/format.h>
#include <k9erepl/storage.h>

#include <cstdint>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "commands.h"
#include "interrupts.h"
#include "output.h"
#include "storage_handle.h"
#include "tool_error.h"

namespace k9repl {

namespace {

unsigned ByteAt(std::string_view bytes, std::size_t i) {
    return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U;
}

bool IsContinuation(unsigned byte) {
    return (byte & 0xC0U) == 0x80U;
}

// Returns the size in bytes of the character at the start of `bytes`; 0 if there is no valid one.
std::size_t Utf8CharacterSize(std::string_view bytes) {
    const unsigned first = ByteAt(bytes, 0);
    const unsigned second = ByteAt(bytes, 1);
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4 || !IsContinuation(second)) {
        return 0;
    }
    if (first < 0xE0) {
        return 2;
    }
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool surrogate = first == 0xED && second > 0x9F;
    const bool tooHigh = first == 0xF4 && second > 0x8F;
    if (overlong || surrogate || tooHigh || !IsContinuation(ByteAt(bytes, 2))) {
        return 0;
    }
    if (first < 0xF0) {
        return 3;
    }
    return IsContinuation(ByteAt(bytes, 3)) ? 4 : 0;
}

// Strict: returns false for overlong forms, for surrogates and for everything above U+10FFFF.
bool IsUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t size = Utf8CharacterSize(bytes);
        if (size == 0) {
            return false;
        }
        bytes.remove_prefix(size);
    }
    return true;
}

// Uses the alphabet with "+" and "/", and pads with "=".
std::string ToBase64(std::string_view bytes) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::uint32_t three =
            ByteAt(bytes, i) << 16U | ByteAt(bytes, i + 1) << 8U | ByteAt(bytes, i + 2);
        text += kAlphabet[three >> 18U];
        text += kAlphabet[three >> 12U & 63U];
        text += i + 1 < bytes.size() ? kAlphabet[three >> 6U & 63U] : '=';
        text += i + 2 < bytes.size() ? kAlphabet[three & 63U] : '=';
    }
    return text;
}

std::string_view DataOf(const K9eReplRec& record) {
    return {reinterpret_cast<const char*>(record.data), record.dataSize};
}

std::string LengthOf(const K9eReplRec& record) {
    std::string length;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        length += static_cast<char>(record.dataSize >> shift & 0xFFU);
    }
    return length;
}

std::string JsonOf(const K9eReplRec& record) {
    const std::string_view data = DataOf(record);
    nlohmann::ordered_json json;
    json["rev"] = std::int64_t{record.rev};
    json["userWord"] = std::uint32_t{record.userWord};
    json["size"] = std::uint32_t{record.dataSize};
    if (IsUtf8(data)) {
        json["data"] = data;
    } else {
        json["base64"] = ToBase64(data);
    }
    return json.dump() + '\n';
}

// Writes records in one of the formats.
class RecordPrinter {
  public:
    RecordPrinter(Output& output, RecordFormat format) : m_output(output), m_format(format) {}

    // Returns false if the output has failed.
    bool Print(const K9eReplRec& record);

  private:
    Output& m_output;
    const RecordFormat m_format;
};

bool RecordPrinter::Print(const K9eReplRec& record) {
    switch (m_format) {
        case RecordFormat::kRaw:
            return m_output.Write(DataOf(record));
        case RecordFormat::kLines:
            return m_output.Write(DataOf(record)) && m_output.Write("\n");
        case RecordFormat::kJson:
            return m_output.Write(JsonOf(record));
        case RecordFormat::kLengthPrefixed:
            return m_output.Write(LengthOf(record)) && m_output.Write(DataOf(record));
    }
    return false;
}

struct PrintingContext {
    RecordPrinter& printer;
    bool interrupted = false;
    std::exception_ptr failure = nullptr;  // must not pass through the library, so it is kept here
};

// Stops the enumeration on an interrupt, if the output fails, and if the reader of the output is
// gone. The output itself remembers why it stopped.
std::uint32_t K9EREPL_CALL PrintRecord(const K9eReplRec* record, void* cbContext) {
    auto& context = *static_cast<PrintingContext*>(cbContext);
    context.interrupted = InterruptSignal() != 0;
    if (context.interrupted) {
        return RC_ENUM_STOP;
    }
    try {
        return context.printer.Print(*record) ? RC_OK : RC_ENUM_STOP;
    } catch (...) {
        context.failure = std::current_exception();
        return RC_ENUM_STOP;
    }
}

}  // namespace

int RunCat(const CatOptions& options) {
    if (options.from > options.to) {
        throw ToolError(fmt::format("--from {} is above --to {}", options.from, options.to),
                        kExitUsage);
    }
    StorageHandle storage(options.conn, Access::kRead);
    Output output(OnInterrupt::kStop);
    RecordPrinter printer(output, options.format);
    PrintingContext context{printer};
    const std::uint32_t code =
        K9eReplStorageEnumRecords(storage.Get(), options.from, options.to, &PrintRecord, &context);
    if (context.failure) {
        std::rethrow_exception(context.failure);
    }
    if (context.interrupted) {
        throw InterruptError();
    }
    output.Finish();  // prints what was read before a failure, too
    if (!output.ReaderIsGone()) {
        storage.Check(code, "read");
    }
    if (const auto damage = storage.TakeDamage()) {
        throw ToolError(Describe(*damage, storage.Path()) + " and are not printed", kExitDamaged);
    }
    return kExitSuccess;
}

}  // namespace k9repl
