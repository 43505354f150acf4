#include "packages/DemoSprdPackage.h"

namespace quorvel::packages {

namespace {

// Deterministic filler that differs per file, so a block written to the wrong place shows.
std::string Pattern(std::size_t size, std::uint32_t seed) {
    std::string s(size, '\0');
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& c : s) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x);
    }
    return s;
}

std::uint16_t NvCrc(const std::string& bytes, std::size_t from) {
    std::uint16_t crc = 0;
    for (std::size_t i = from; i < bytes.size(); ++i) {
        crc ^= static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[i]) << 8);
        for (int b = 0; b < 8; ++b) crc = static_cast<std::uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x8005 : crc << 1);
    }
    return crc;
}

std::string Config() {
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<BMAConfig>
  <ProductList>
    <Product name="QDEMO9863">
      <SchemeName>QDEMO9863</SchemeName>
      <NVBackup>
        <NVItem name="Calibration" backup="1"><ID>0x2</ID></NVItem>
        <NVItem name="IMEI" backup="1"><ID>0x5</ID></NVItem>
      </NVBackup>
      <Partitions>
        <Partition id="fixnv1" size="1"/>
        <Partition id="boot" size="4"/>
        <Partition id="system" size="64"/>
        <Partition id="cache" size="8"/>
        <Partition id="userdata" size="0xFFFFFFFF"/>
      </Partitions>
    </Product>
  </ProductList>
  <SchemeList>
    <Scheme name="QDEMO9863">
      <File><ID>FDL</ID><Type>FDL</Type><Block><Base>0x5500</Base><Size>0</Size></Block><Flag>1</Flag><CheckFlag>1</CheckFlag></File>
      <File><ID>FDL2</ID><Type>FDL2</Type><Block><Base>0x9EFFFE00</Base><Size>0</Size></Block><Flag>1</Flag><CheckFlag>1</CheckFlag></File>
      <File><ID>NV_W</ID><Type>NV</Type><Block id="fixnv1"/><Flag>1</Flag><CheckFlag>1</CheckFlag></File>
      <File><ID>EraseCache</ID><Type>EraseFlash</Type><Block id="cache"/><Flag>0</Flag><CheckFlag>0</CheckFlag></File>
      <File><ID>BOOT</ID><Type>CODE</Type><Block id="boot"/><Flag>1</Flag><CheckFlag>1</CheckFlag></File>
      <File><ID>System</ID><Type>CODE</Type><Block id="system"/><Flag>1</Flag><CheckFlag>1</CheckFlag></File>
    </Scheme>
  </SchemeList>
</BMAConfig>
)";
}

}  // namespace

std::string DemoNvImage(std::size_t size) {
    std::string nv(4, '\0');
    auto item = [&nv](std::uint16_t id, const std::string& data) {
        nv += static_cast<char>(id & 0xFF);
        nv += static_cast<char>(id >> 8);
        nv += static_cast<char>(data.size() & 0xFF);
        nv += static_cast<char>(data.size() >> 8);
        nv += data;
        while (nv.size() % 4) nv += '\0';
    };
    item(0x0001, "QDEMO9863 settings");
    item(0x0002, std::string(64, '\0'));  // calibration: the phone's is kept
    item(0x0005, std::string(16, '\0'));  // IMEI: the phone's is kept
    item(0x0010, Pattern(100, 16));
    nv += "\xFF\xFF";
    // The CRC covers up to the end marker, not the fill after it.
    const std::uint16_t crc = NvCrc(nv, 2);
    if (nv.size() < size) nv.resize(size, '\xFF');
    nv[0] = static_cast<char>(crc >> 8);
    nv[1] = static_cast<char>(crc & 0xFF);
    return nv;
}

PacSpec DemoSprdPac(std::uint32_t systemKiB) {
    constexpr std::size_t kKiB = 1024;
    PacSpec p;
    p.productName = kDemoSprdProduct;
    p.nvBackupFlag = 1;
    p.entries = {
        {"FDL", "fdl1-sign.bin", Pattern(12 * kKiB, 1)},
        {"FDL2", "fdl2-sign.bin", Pattern(64 * kKiB, 2)},
        {"NV_W", "nvitem.bin", DemoNvImage(16 * kKiB)},
        {"EraseCache", "", "", 1, 1},
        {"BOOT", "boot.img", Pattern(256 * kKiB, 3)},
        {"System", "system.img", Pattern(systemKiB * kKiB, 4)},
        {"", "QDEMO9863.xml", Config()},
    };
    return p;
}

}  // namespace quorvel::packages
