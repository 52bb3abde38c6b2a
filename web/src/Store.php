<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

use Korlo\Settings\Client;

/**
 * The groups that the page shows: those that its user may read, without the restricted ones.
 */
final class Store
{
    public function __construct(public readonly Client $client)
    {
    }

    /**
     * Whether a list of names can name this group, and only it.
     */
    public static function canName(string $group): bool
    {
        return $group !== '.' && strpbrk($group, "*\n") === false;
    }

    /**
     * What tells one content of a group from another.
     *
     * @param ?array<string> $values null: there is no such group
     */
    public static function digest(?array $values): string
    {
        return $values === null ? '' : hash('xxh64', serialize($values));
    }

    /**
     * @return array<array<string>>
     */
    public function all(): array
    {
        return self::unrestricted($this->client->get('*'));
    }

    /**
     * @param list<string> $names of groups; those that do not exist are not in the result
     * @return array<array<string>>
     */
    public function groups(array $names): array
    {
        $canName = array_filter($names, self::canName(...)) === $names;
        $settings = $canName ? $this->client->get(...$names) : $this->client->get('*');
        return self::unrestricted(array_intersect_key($settings, array_flip($names)));
    }

    /**
     * @return ?array<string>
     */
    public function group(string $name): ?array
    {
        return $this->groups([$name])[$name] ?? null;
    }

    /**
     * @param array<array<string>> $settings
     * @return array<array<string>>
     */
    public static function unrestricted(array $settings): array
    {
        $isShown = static fn(string|int $group): bool => !Client::isRestricted((string)$group);
        return array_filter($settings, $isShown, ARRAY_FILTER_USE_KEY);
    }
}
