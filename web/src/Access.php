<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * Who may ask. The page itself knows no users: the device's login stands before it. This keeps other web sites, which
 * the same browser shows, from speaking through it.
 */
final class Access
{
    public const COOKIE = 'korlo-settings-page';
    private const TOKEN = '/\A[0-9a-f]{32}\z/';
    private const LOOPBACK = '/\A(localhost|127(\.[0-9]{1,3}){3}|\[::1\])\z/';

    /**
     * Refuses names that nobody has said are this device's, so that no foreign name can be pointed at it.
     *
     * @param string $host as the browser sent it, with a port or without
     * @param string $names those that are right, separated by commas
     * @throws BadRequest
     */
    public static function checkHost(string $host, string $names): void
    {
        $host = strtolower((string)preg_replace('/:[0-9]*\z/', '', $host));
        $known = array_map('trim', explode(',', strtolower($names)));
        if (preg_match(self::LOOPBACK, $host) !== 1 && ($host === '' || !in_array($host, $known, true))) {
            throw new BadRequest('This page does not answer to the name of the host in the address. If it is right, ' .
                'add it to KORLO_SETTINGS_HOSTS where the page is configured.', 403);
        }
    }

    /**
     * Refuses a change that no form of this page has sent.
     *
     * @param array<mixed> $fields
     * @param array<mixed> $cookies
     * @param ?string $site how the browser says the request's origin is related; null: it does not say
     * @throws BadRequest
     */
    public static function checkToken(array $fields, array $cookies, ?string $site): void
    {
        $sent = $fields['token'] ?? null;
        $expected = self::token($cookies);
        $isOurs = $expected !== null && is_string($sent) && hash_equals($expected, $sent);
        if (!$isOurs || !in_array($site, [null, 'same-origin', 'none'], true)) {
            throw new BadRequest('Nothing was changed: this page has not drawn the form for this browser. Reload it, ' .
                'and see that it may set cookies.', 403);
        }
    }

    /**
     * @param array<mixed> $cookies
     */
    public static function token(array $cookies): ?string
    {
        $token = $cookies[self::COOKIE] ?? null;
        return is_string($token) && preg_match(self::TOKEN, $token) === 1 ? $token : null;
    }
}
