// What stands on a volume: label, uuid and type, as the system's block-id tool prints them.
#pragma once

namespace dcm::usb {

// One in every block node. Event frame's thread, which waits for the tool to end.
class UBlkID {
public:
    static const char* const kStringBlkid[3];    // keys of label, uuid and type, in the order of the search
    static const char* const kRootNewBlkidPath;  // the tool
    static const char* const kRootBlkidPath;     // the tool's older place, not used
    static constexpr int kReadPipe = 0;          // indexes of a pipe's ends
    static constexpr int kWritePipe = 1;

    UBlkID() = default;
    virtual ~UBlkID();
    UBlkID(const UBlkID&) = delete;
    UBlkID& operator=(const UBlkID&) = delete;

    // Runs the tool on a device file. What it does not print keeps its old value.
    void UpdateVolid(const char* devname);

    // Parses what arrives until the end of file; closes the descriptor and sets it to -1.
    void ReadPipe(int& fd);

    // Takes what one chunk of the tool's output holds; a value lasts at most to the chunk's end.
    void ParseBuf(char* buf);

    // Null until the tool printed one; an empty value is an empty text.
    const char* GetLabel() const { return m_label; }
    const char* GetUuid() const { return m_uuid; }
    const char* GetType() const { return m_type; }

private:
    char* m_label = nullptr;  // owned
    char* m_uuid = nullptr;   // owned
    char* m_type = nullptr;   // owned
};

}  // namespace dcm::usb
