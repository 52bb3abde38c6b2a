<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

use Korlo\Settings\Client;
use Korlo\Settings\SettingsException;

/**
 * Answers one request.
 *
 * - "GET /" is the page; "q" is the filter, "group" picks single groups, in hexadecimal, for the script of an open page
 * - "POST /" is a form of a group; after a change that was made, the browser is sent back to the page
 * - "GET /changes" is the stream of changes
 */
final class Site
{
    private const SECONDS = 5.0;  // for the settings server to answer; the stream waits no longer, either
    private const SAID = 'korlo-settings-said';  // the cookie that takes a message over to the page
    private const LONGEST_SAID = 400;  // characters, so that the cookie is taken
    private const POLICY = "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; " .
        "worker-src 'self'; img-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'";

    private readonly ?string $address;
    private readonly string $name;  // of what is asked for, in whatever folder the device shows the page

    /**
     * @param array<mixed> $server PHP's $_SERVER
     * @param array<mixed> $query
     * @param array<mixed> $fields
     * @param array<mixed> $cookies
     */
    public function __construct(
        private readonly array $server,
        private readonly array $query,
        private readonly array $fields,
        private readonly array $cookies
    ) {
        $this->address = self::environment('KORLO_SETTINGS_ADDRESS');
        $path = explode('?', (string)($server['REQUEST_URI'] ?? '/'))[0];
        $this->name = substr($path, strrpos("/$path", '/'));
    }

    public function answer(): void
    {
        try {
            $host = (string)($this->server['HTTP_HOST'] ?? '');
            Access::checkHost($host, self::environment('KORLO_SETTINGS_HOSTS') ?? '');
            match ($this->name) {
                '', 'index.php' => $this->answerPage(),
                'changes' => (new Stream($this->store(...), $this->server))->run(),
                'favicon.ico' => self::send(404, []),
                default => throw new BadRequest('There is no such page.', 404),
            };
        } catch (BadRequest $refusal) {
            self::send($refusal->status, View::failure($refusal->getMessage(), false));
        } catch (SettingsException $failure) {
            self::send(503, View::failure(self::told($failure), true));
        }
    }

    /**
     * A failure, as people who use the page can read it.
     */
    public static function told(SettingsException $failure): string
    {
        $reason = preg_replace('/\A\w+\(\) failed with /', '', $failure->getMessage());
        return 'The settings cannot be read or changed now: ' . Text::shown($reason) . '.';
    }

    private function answerPage(): void
    {
        match ($this->server['REQUEST_METHOD'] ?? 'GET') {
            'GET', 'HEAD' => $this->draw($this->takeSaid(), false, 200, null),
            'POST' => $this->change(),
            default => throw new BadRequest('A page is read by GET, and changed by POST.', 405),
        };
    }

    private function change(): void
    {
        if ($this->fields === [] && (int)($this->server['CONTENT_LENGTH'] ?? 0) > 1024 * 1024) {
            throw new BadRequest('Nothing was changed: the form is larger than PHP takes here (post_max_size).', 413);
        }
        $site = $this->server['HTTP_SEC_FETCH_SITE'] ?? null;
        Access::checkToken($this->fields, $this->cookies, $site);
        $outcome = (new Editor($this->store()))->carryOut($this->fields);
        if ($outcome->isDone() && $outcome->draft === null) {
            $this->setCookie(self::SAID, bin2hex(Text::cut($outcome->message, self::LONGEST_SAID)));
            header('Location: ' . ($this->server['REQUEST_URI'] ?? './'), true, 303);
            return;
        }
        $this->draw($outcome->message, !$outcome->isDone(), $outcome->status, $outcome->draft);
    }

    private function draw(string $said, bool $isError, int $status, ?Draft $draft): void
    {
        $store = $this->store();
        $names = $this->names();
        $settings = $names === null ? $store->all() : $store->groups($names);
        $marks = $this->marks();
        $erased = $marks?->erased($settings) ?? [];
        if ($names !== null) {
            $erased = array_values(array_intersect($erased, $names));
        }
        $token = Access::token($this->cookies) ?? $this->newToken();
        $filter = is_string($this->query['q'] ?? null) ? Text::shown($this->query['q']) : '';
        self::send($status, (new View($marks, $token, $filter, $draft))->page($said, $isError, $settings, $erased));
    }

    /**
     * The groups that are asked for; null: all.
     *
     * @return ?list<string>
     */
    private function names(): ?array
    {
        $names = $this->query['group'] ?? null;
        if ($names === null) {
            return null;
        }
        $names = array_filter(is_array($names) ? $names : [$names], is_string(...));
        return array_values(array_map(Form::name(...), $names));
    }

    private function marks(): ?Marks
    {
        try {
            return Marks::read($this->address, self::environment('KORLO_SETTINGS_CONTROL'));
        } catch (SettingsException) {
            return null;  // a page without marks is better than none
        }
    }

    private function store(): Store
    {
        return new Store(new Client($this->address, self::SECONDS));
    }

    private function newToken(): string
    {
        $token = bin2hex(random_bytes(16));
        $this->setCookie(Access::COOKIE, $token);
        return $token;
    }

    /**
     * What the request before had to say.
     */
    private function takeSaid(): string
    {
        $said = $this->cookies[self::SAID] ?? null;
        if (!is_string($said)) {
            return '';
        }
        $this->setCookie(self::SAID, '');
        return Text::shown(Form::name($said));
    }

    /**
     * @param string $value empty: the cookie goes
     */
    private function setCookie(string $name, string $value): void
    {
        $isSecure = ($this->server['HTTPS'] ?? 'off') !== 'off';
        header("Set-Cookie: $name=$value; Path=/; HttpOnly; SameSite=Strict" . ($isSecure ? '; Secure' : '') .
            ($value === '' ? '; Max-Age=0' : ''), false);
    }

    /**
     * @param iterable<Html> $body
     */
    private static function send(int $status, iterable $body): void
    {
        http_response_code($status);
        header('Content-Type: text/html; charset=utf-8');
        header('Content-Security-Policy: ' . self::POLICY);
        header('X-Content-Type-Options: nosniff');
        header('Referrer-Policy: same-origin');
        header('Cache-Control: no-store');
        foreach ($body as $piece) {
            echo $piece;
        }
    }

    private static function environment(string $name): ?string
    {
        $value = getenv($name);
        return $value === false || $value === '' ? null : $value;
    }
}
