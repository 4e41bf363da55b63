#include "setting/USetting.h"

#include "misc/ULog.h"
#include "record/StatusRecord.h"
#include "shm/ssmInterface.h"

namespace dcm::usb {
namespace {

constexpr unsigned long kThisService = 4096;  // the platform's sender bit of the USB service

// The store's functions take and give plain bytes.
template <typename Record>
int ReadRecord(ssmID::e_SsmID id, Record* record) {
    return ssmInterface::read_ssm(id, reinterpret_cast<char*>(record));
}

template <typename Record>
int WriteRecord(ssmID::e_SsmID id, const Record& record) {
    return ssmInterface::write_ssm(id, reinterpret_cast<const char*>(&record), sizeof record);
}

class Locked {
public:
    explicit Locked(pthread_mutex_t* mutex) : m_mutex(mutex) { pthread_mutex_lock(m_mutex); }
    ~Locked() { pthread_mutex_unlock(m_mutex); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pthread_mutex_t* const m_mutex;
};

void LogUsbCert(const StShmUsbCert& cert) {
    ULOG(LOG_INFO, "test_force_enable1:%d test_force_enable2:%d device_mode1:%d device_mode2:%d",
         cert.test_force_enable1, cert.test_force_enable2, cert.device_mode1, cert.device_mode2);
}

void LogUsbCertPersist(const StShmUsbCertPersist& persist) {
    ULOG(LOG_INFO, "customer_hub_support:%d", persist.customer_hub_support);
}

void RequestUsbCertNotify() {
    if (ssmInterface::set_notify(ssmID::shm_usb_cert, kThisService) < 0) {
        ULOG(LOG_FAILED, "failed to set_notify shm_usb_cert");
    } else {
        ULOG(LOG_INFO, "succeed to set_notify shm_usb_cert");
    }
}

void RequestUsbCertPersistNotify() {
    if (ssmInterface::set_notify(ssmID::shm_usb_cert_persist, kThisService) < 0) {
        ULOG(LOG_FAILED, "failed to set_notify shm_usb_cert_persist");
    } else {
        ULOG(LOG_INFO, "succeed to set_notify shm_usb_cert_persist");
    }
}

void SyncUsbCertPersist() {
    if (ssmInterface::sync_data(ssmID::shm_usb_cert_persist) < 0) {
        ULOG(LOG_FAILED, "failed to sync shm_usb_cert_persist");
    } else {
        ULOG(LOG_INFO, "succeed to sync shm_usb_cert_persist");
    }
}

void CreateUsbCert() {
    if (WriteRecord(ssmID::shm_usb_cert, StShmUsbCert{}) < 0) {
        ULOG(LOG_FAILED, "failed to write shm_usb_cert");
        return;
    }
    ULOG(LOG_INFO, "succeed to write shm_usb_cert");
    RequestUsbCertNotify();
}

void CreateUsbCertPersist() {
    if (WriteRecord(ssmID::shm_usb_cert_persist, StShmUsbCertPersist{}) < 0) {
        ULOG(LOG_FAILED, "failed to write shm_usb_cert_persist");
        return;
    }
    ULOG(LOG_INFO, "succeed to write shm_usb_cert_persist");
    RequestUsbCertPersistNotify();
    SyncUsbCertPersist();
}

}  // namespace

USetting::USetting() {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
    for (unsigned char port = 1; port < kAdaptionPorts; ++port)
        SetUsbAdaption(port, USB_ADAPTION_UNKNOWN);
    InitUsbCertSSm();
}

USetting::~USetting() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

void USetting::InitUsbCertSSm() {
    StShmUsbCert cert = GetUsbCert();
    if (ReadRecord(ssmID::shm_usb_cert, &cert) >= 0) {
        StoreUsbCert(cert);
        // Deliberate: no notification is asked for here, unlike below; who made the record did so.
        ULOG(LOG_INFO, "succeed to read shm_usb_cert");
    } else {
        CreateUsbCert();
    }
    StShmUsbCertPersist persist{customer_hub_support};
    if (ReadRecord(ssmID::shm_usb_cert_persist, &persist) >= 0) {
        StoreUsbCertPersist(persist);
        ULOG(LOG_INFO, "succeed to read shm_usb_cert_persist");
        RequestUsbCertPersistNotify();
    } else {
        CreateUsbCertPersist();
    }
}

void USetting::SetUsbCoding(E_USB_CODING coding) {
    ULOG(LOG_INFO, "usb_coding is %d", coding);
    const Locked lock(&m_mutex);
    usb_coding = coding;
    ShowStatus();
}

void USetting::SetUsbAdaption(unsigned char port, E_USB_ADAPTION adaption) {
    if (port >= kAdaptionPorts) {
        ULOG(LOG_FAILED, "port is wrong(%d)", port);
        return;
    }
    ULOG(LOG_INFO, "usb_adaption of port%d is %d", port, adaption);
    const Locked lock(&m_mutex);
    usb_adaption[port] = adaption;
    ShowStatus();
}

void USetting::SetUsbCert(const StShmUsbCert* cert) {
    if (!cert) {
        ULOG(LOG_FAILED, "cert is null");
        return;
    }
    LogUsbCert(*cert);
    StoreUsbCert(*cert);
}

void USetting::SetUsbCertPersist(const StShmUsbCertPersist* persist) {
    if (!persist) {
        ULOG(LOG_FAILED, "persist is null");
        return;
    }
    LogUsbCertPersist(*persist);
    StoreUsbCertPersist(*persist);
}

bool USetting::UpdateUsbCert() {
    StShmUsbCert cert{};
    if (ReadRecord(ssmID::shm_usb_cert, &cert) < 0) {
        ULOG(LOG_FAILED, "failed to read shm_usb_cert");
        return false;
    }
    LogUsbCert(cert);
    if (cert == GetUsbCert()) return false;
    SetUsbCert(&cert);
    return true;
}

bool USetting::UpdateUsbCertPersist() {
    StShmUsbCertPersist persist{customer_hub_support};  // a record without data changes nothing
    if (ReadRecord(ssmID::shm_usb_cert_persist, &persist) < 0) {
        ULOG(LOG_FAILED, "failed to read shm_usb_cert_persist");
        return false;
    }
    LogUsbCertPersist(persist);
    SyncUsbCertPersist();  // on every notification, also of a value that is held already
    if (persist.customer_hub_support == customer_hub_support) return false;
    SetUsbCertPersist(&persist);
    return true;
}

E_USB_ADAPTION USetting::GetUsbAdaption(unsigned char port) const {
    return port < kAdaptionPorts ? usb_adaption[port].load() : USB_ADAPTION_UNKNOWN;
}

StShmUsbCert USetting::GetUsbCert() const {
    return {test_force_enable1, test_force_enable2, device_mode1, device_mode2};
}

void USetting::StoreUsbCert(const StShmUsbCert& cert) {
    const Locked lock(&m_mutex);
    test_force_enable1 = cert.test_force_enable1;
    test_force_enable2 = cert.test_force_enable2;
    device_mode1 = cert.device_mode1;
    device_mode2 = cert.device_mode2;
    ShowStatus();
}

void USetting::StoreUsbCertPersist(const StShmUsbCertPersist& persist) {
    const Locked lock(&m_mutex);
    customer_hub_support = persist.customer_hub_support;
    ShowStatus();
}

// With the lock.
void USetting::ShowStatus() {
    SettingsStatus settings{};
    settings.coding = usb_coding;
    for (std::size_t port = 1; port < kAdaptionPorts; ++port)
        settings.adaption[port - 1] = usb_adaption[port];
    settings.customer_hub_support = customer_hub_support;
    settings.force_enable[0] = test_force_enable1;
    settings.force_enable[1] = test_force_enable2;
    settings.device_mode[0] = device_mode1;
    settings.device_mode[1] = device_mode2;
    m_status.Show(STATUS_SETTINGS, settings);
}

}  // namespace dcm::usb
