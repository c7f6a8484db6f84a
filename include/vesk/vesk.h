/*
 * Everything a servlet module needs: include this one header.
 */
#ifndef VESK_INCLUDED
#define VESK_INCLUDED

#include <vesk/Export.h>
#include <vesk/Exception.h>
#include <vesk/Mem.h>
#include <vesk/Arena.h>
#include <vesk/System.h>
#include <vesk/Error.h>
#include <vesk/Container.h>
/* @modules@ */
#include <vesk/HttpConnector.h>
#include <vesk/Build.h>
#include <vesk/Config.h>
#include <vesk/ServerPageServlet.h>
#include <vesk/ServerPage.h>
#include <vesk/DefaultServlet.h>
#include <vesk/Service.h>
#include <vesk/Engine.h>
#include <vesk/Host.h>
#include <vesk/Context.h>
#include <vesk/RequestDispatcher.h>
#include <vesk/Wrapper.h>
#include <vesk/Loader.h>
#include <vesk/Dso.h>
#include <vesk/ServletConfig.h>
#include <vesk/ServletContext.h>
#include <vesk/SecurityCollection.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/LoginConfig.h>
#include <vesk/Realm.h>
#include <vesk/Principal.h>
#include <vesk/FileCache.h>
#include <vesk/CacheQueue.h>
#include <vesk/Cache.h>
#include <vesk/OS.h>
#include <vesk/Logger.h>
#include <vesk/Command.h>
#include <vesk/Process.h>
#include <vesk/XMLParser.h>
#include <vesk/URLConnection.h>
#include <vesk/URL.h>
#include <vesk/SSL.h>
#include <vesk/Cookie.h>
#include <vesk/Part.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/HttpStore.h>
#include <vesk/HttpLexer.h>
#include <vesk/Bit.h>
#include <vesk/Array.h>
#include <vesk/Seq.h>
#include <vesk/Ring.h>
#include <vesk/Time.h>
#include <vesk/Crypto.h>
#include <vesk/Base64.h>
#include <vesk/SASL.h>
#include <vesk/Entropy.h>
#include <vesk/File.h>
#include <vesk/Dir.h>
#include <vesk/FileInputStream.h>
#include <vesk/FileOutputStream.h>
#include <vesk/Net.h>
#include <vesk/ServerSocket.h>
#include <vesk/InetAddress.h>
#include <vesk/Socket.h>
#include <vesk/InputStream.h>
#include <vesk/OutputStream.h>
#include <vesk/Chain.h>
#include <vesk/Str.h>
#include <vesk/Reactor.h>
#include <vesk/Dispatcher.h>
#include <vesk/Thread.h>
#include <vesk/List.h>
#include <vesk/Vector.h>
#include <vesk/Table.h>
#include <vesk/Map.h>
#include <vesk/Set.h>
#include <vesk/LRU.h>
#include <vesk/StringBuffer.h>

#include <vesk/assert.h>

#endif
