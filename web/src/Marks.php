<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

use Korlo\Settings\Address;
use Korlo\Settings\Client;
use Korlo\Settings\SettingsException;

/**
 * What differs from the defaults.
 *
 * Only the control door tells the defaults. A page that may not open it marks what is in the user layer instead: what
 * was set on this device, to whatever value.
 */
final class Marks
{
    private const CONTROL = '/run/korlo-settings/control';

    /**
     * @param array<array<string>> $values the defaults, or the user layer
     */
    private function __construct(private readonly array $values, private readonly bool $areDefaults)
    {
    }

    /**
     * @param ?string $server the address of the settings; null is the usual place
     * @param ?string $control the path of its control door; null is the usual place of that of the usual server
     */
    public static function read(?string $server, ?string $control): self
    {
        $control ??= $server === null ? self::CONTROL : '';
        try {
            if ($control !== '' && is_writable($control)) {
                return new self(TextDoor::ask(Address::parse("unix:$control"), 'defaults'), true);
            }
        } catch (SettingsException) {
            // The user layer is the next best.
        }
        return new self(TextDoor::ask($server === null ? Address::find() : Address::parse($server), 'dump'), false);
    }

    /**
     * How a key is marked; null: it is as the defaults have it.
     */
    public function of(string $group, string $key, string $value): ?Html
    {
        $other = $this->values[$group][$key] ?? null;
        if ($this->areDefaults) {
            return match ($other) {
                $value => null,
                null => Html::of('<mark>added</mark>'),
                default => Html::of('<mark>changed</mark> default: <q>%s</q>', Text::shown($other)),
            };
        }
        return $other === null ? null : Html::of('<mark>set here</mark>');
    }

    /**
     * What the defaults have in a group and the settings have not.
     *
     * @param array<string> $values
     * @return array<string>
     */
    public function missing(string $group, array $values): array
    {
        return $this->areDefaults ? array_diff_key($this->values[$group] ?? [], $values) : [];
    }

    /**
     * The groups that the defaults have and the settings have not.
     *
     * @param array<array<string>> $settings
     * @return list<string>
     */
    public function erased(array $settings): array
    {
        if (!$this->areDefaults) {
            return [];
        }
        $names = array_map('strval', array_keys(array_diff_key($this->values, $settings)));
        return array_values(array_filter($names, static fn(string $name): bool => !Client::isRestricted($name)));
    }
}
