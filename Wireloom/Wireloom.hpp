#pragma once
// Everything public in Wireloom, in one include.

#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/IndexSet.hpp>
#include <Wireloom/core/Log.hpp>
#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/RunLoop.hpp>
#include <Wireloom/core/Value.hpp>

#include <Wireloom/text/AttributedString+PXRV.hpp>
#include <Wireloom/text/AttributedString.hpp>
#include <Wireloom/text/Color.hpp>
#include <Wireloom/text/String+PXRV.hpp>
#include <Wireloom/text/WLAttributedString.hpp>
#include <Wireloom/text/WLColors.hpp>
#include <Wireloom/text/WLToken.hpp>

#include <Wireloom/report/PXFilterState.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>
#include <Wireloom/report/PXReportAnalyzerEntrySource.hpp>
#include <Wireloom/report/PXReportAnalyzerFilter.hpp>
#include <Wireloom/report/PXReportAnalyzerUI.hpp>
#include <Wireloom/report/WLFilterIndexer.hpp>

#include <Wireloom/packets/PXBSDLoopbackPacket.hpp>
#include <Wireloom/packets/PXEthernetPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/packets/PXRTPPacket.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/packets/PacketClass.hpp>

#include <Wireloom/capture/PXCaptureDevice.hpp>
#include <Wireloom/capture/PXCaptureFile.hpp>
#include <Wireloom/capture/PXCaptureUtilities.hpp>
#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/capture/PXTime.hpp>
#include <Wireloom/capture/PXTimer.hpp>
#include <Wireloom/capture/WLNetworkCaptureAssistant.hpp>

#include <Wireloom/flows/PXTCPBuffer.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/flows/PXTCPFlowTable.hpp>
#include <Wireloom/flows/PXUDPFlow.hpp>
#include <Wireloom/flows/PXUDPFlowTable.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>
#include <Wireloom/protocols/PXDNSIPv6AddressResource.hpp>
#include <Wireloom/protocols/PXDNSPTRResource.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>
#include <Wireloom/protocols/PXDNSSRVResource.hpp>
#include <Wireloom/protocols/PXDNSTXTResource.hpp>
#include <Wireloom/protocols/PXHTTPBPlistContainer.hpp>
#include <Wireloom/protocols/PXHTTPParser.hpp>
#include <Wireloom/protocols/PXHTTPRequest.hpp>
#include <Wireloom/protocols/PXHTTPResponse.hpp>
#include <Wireloom/protocols/PXHTTPStreamAnalyzer.hpp>
#include <Wireloom/protocols/PXMDNSPacket.hpp>
#include <Wireloom/protocols/PXMDNSQuestion.hpp>
#include <Wireloom/protocols/PXMDNSRecord.hpp>
