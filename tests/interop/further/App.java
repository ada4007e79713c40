import java.io.IOException;
import java.io.InputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.Map;
import jakarta.servlet.http.HttpServlet;
import jakarta.servlet.http.HttpServletRequest;
import jakarta.servlet.http.HttpServletResponse;

/** The answers of ../server.js, for the servers that run servlets. */
public class App extends HttpServlet {
    @Override
    protected void service(HttpServletRequest request, HttpServletResponse response)
            throws IOException {
        switch (request.getRequestURI()) {
            case "/echo":
                echo(request, response);
                break;
            case "/app/upload":
                text(response, digest(request.getInputStream()) + "\n");
                break;
            case "/app/204":
                response.setStatus(204);
                break;
            case "/app/304":
                response.setStatus(304);
                break;
            case "/app/headers":
                for (int i = 0; i < 16; ++i) response.setHeader("x-filler-" + i, "f".repeat(1000));
                text(response, "large headers\n");
                break;
            case "/app/trailers":
                response.setTrailerFields(() -> Map.of("x-trailer", "yes"));
                text(response, "then trailers\n");
                break;
            case "/app/limited":
                response.setStatus(413);
                text(response, "too large\n");
                break;
            default:
                response.setStatus(404);
        }
    }

    private static void text(HttpServletResponse response, String text) throws IOException {
        response.getOutputStream().write(text.getBytes(StandardCharsets.US_ASCII));
    }

    private static void echo(HttpServletRequest request, HttpServletResponse response)
            throws IOException {
        byte[] body = request.getInputStream().readAllBytes();
        if (body.length == 0) {
            text(response, request.getMethod() + " without a body\n");
        } else {
            response.getOutputStream().write(body);
        }
    }

    private static String digest(InputStream input) throws IOException {
        try {
            MessageDigest digest = MessageDigest.getInstance("SHA-256");
            byte[] buffer = new byte[65536];
            for (int count = input.read(buffer); count >= 0; count = input.read(buffer)) {
                digest.update(buffer, 0, count);
            }
            return String.format("%064x", new BigInteger(1, digest.digest()));
        } catch (NoSuchAlgorithmException impossible) {
            throw new IllegalStateException(impossible);
        }
    }
}
