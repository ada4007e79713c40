import org.eclipse.jetty.alpn.server.ALPNServerConnectionFactory;
import org.eclipse.jetty.http2.server.HTTP2CServerConnectionFactory;
import org.eclipse.jetty.http2.server.HTTP2ServerConnectionFactory;
import org.eclipse.jetty.server.HttpConfiguration;
import org.eclipse.jetty.server.HttpConnectionFactory;
import org.eclipse.jetty.server.SecureRequestCustomizer;
import org.eclipse.jetty.server.Server;
import org.eclipse.jetty.server.ServerConnector;
import org.eclipse.jetty.server.SslConnectionFactory;
import org.eclipse.jetty.server.handler.StatisticsHandler;
import org.eclipse.jetty.servlet.DefaultServlet;
import org.eclipse.jetty.servlet.ServletContextHandler;
import org.eclipse.jetty.servlet.ServletHolder;
import org.eclipse.jetty.util.ssl.SslContextFactory;

/**
 * Jetty with the servlet App and a folder of files, over plain TCP and TLS. Ends at SIGTERM, when the
 * requests that are running have ended.
 *
 * <p>Usage: Jetty PLAIN_PORT TLS_PORT DOCROOT KEYSTORE PASSWORD
 */
public class Jetty {
    public static void main(String[] arguments) throws Exception {
        Server server = new Server();
        HttpConfiguration http = new HttpConfiguration();
        http.setResponseHeaderSize(32768);
        listen(server, arguments[0],
                new ServerConnector(server, new HttpConnectionFactory(http),
                        new HTTP2CServerConnectionFactory(http)));

        SslContextFactory.Server tls = new SslContextFactory.Server();
        tls.setKeyStorePath(arguments[3]);
        tls.setKeyStorePassword(arguments[4]);
        HttpConfiguration https = new HttpConfiguration(http);
        https.addCustomizer(new SecureRequestCustomizer(false));
        ALPNServerConnectionFactory alpn = new ALPNServerConnectionFactory("h2", "http/1.1");
        listen(server, arguments[1],
                new ServerConnector(server, new SslConnectionFactory(tls, "alpn"), alpn,
                        new HTTP2ServerConnectionFactory(https), new HttpConnectionFactory(https)));

        ServletContextHandler context = new ServletContextHandler();
        context.setResourceBase(arguments[2]);
        ServletHolder app = new ServletHolder(new App());
        context.addServlet(app, "/app/*");
        context.addServlet(app, "/echo");
        context.addServlet(DefaultServlet.class, "/");
        StatisticsHandler counted = new StatisticsHandler(); // lets stop() wait for requests
        counted.setHandler(context);
        server.setHandler(counted);
        server.setStopTimeout(5000);
        server.setStopAtShutdown(true);
        server.start();
        server.join();
    }

    private static void listen(Server server, String port, ServerConnector connector) {
        connector.setHost("127.0.0.1");
        connector.setPort(Integer.parseInt(port));
        server.addConnector(connector);
    }
}
